#ifndef AMBIT_EXPORT_H_
#define AMBIT_EXPORT_H_

// Every public header includes this one first. libambit is a 32-bit x86
// library: its records cross to other processes and to the library with the
// i386 layout, so a program built for another target cannot use it. Such a
// build stops with this one message, which names the cure; the layout
// checks further down are skipped so that they do not bury it.
#if !defined(__i386__)
#error "ambit is a 32-bit x86 (i386) library: compile and link with -m32 (find_package(Ambit) and pkg-config --cflags --libs ambit add it for you)"
#define AMBIT_WRONG_TARGET 1
#endif

// The library is built with hidden visibility; AMBIT_API marks what it
// exports. Callers see the same declarations.
#define AMBIT_API __attribute__((visibility("default")))

#endif  // AMBIT_EXPORT_H_
