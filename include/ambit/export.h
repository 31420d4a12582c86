#ifndef AMBIT_EXPORT_H_
#define AMBIT_EXPORT_H_

// The library is built with hidden visibility; AMBIT_API marks what it
// exports. Callers see the same declarations.
#define AMBIT_API __attribute__((visibility("default")))

#endif  // AMBIT_EXPORT_H_
