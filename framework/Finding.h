#pragma once

#include <string>

namespace Framework {

enum class Severity { kWarning, kError };

// One thing there is to say of a policy document before it is put to work.
struct Finding {
    Severity severity = Severity::kWarning;
    std::string key;       // the key's path, as in content.log_path[2]; empty: the whole document
    std::string problem;   // what is wrong, and what comes of it
    std::string advice;    // what to do
    bool refuses = false;  // the document must not be put to work: what runs goes on
};

// "warning" or "error".
inline const char* Name(Severity severity) {
    return severity == Severity::kError ? "error" : "warning";
}

// One line for a log or a terminal.
inline std::string Describe(const Finding& finding) {
    return (finding.key.empty() ? "" : finding.key + ": ") + finding.problem +
           (finding.advice.empty() ? "" : "; " + finding.advice);
}

}  // namespace Framework
