#ifndef AMBIT_TOOLS_IPCS_EXPLAIN_H_
#define AMBIT_TOOLS_IPCS_EXPLAIN_H_

#include <string>

// The meaning of a number the library reports: a QKException code, a wait
// result or an event's value word. `text` is the number as the user typed
// it (hex with 0x, or decimal, negative too, as a signed `code` prints).
// Returns false when the text is no number (*meaning says so) and sets
// *known to false when the number means nothing to the library.
bool ExplainCode(const std::string& text, std::string* meaning, bool* known);

#endif  // AMBIT_TOOLS_IPCS_EXPLAIN_H_
