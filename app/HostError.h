#pragma once
// How a host's command ends: its exit code and, when it fails, the one
// message that says what went wrong and what to do.
#include <string>

namespace host {

// exitRefused: a clean where nothing failed but the safety rules kept some hits.
enum ExitCode { exitOk = 0, exitCleanFailures = 1, exitUsage = 2, exitRefused = 3, exitCancelled = 130 };

// A failure that ends the command: a one-line message for standard error
// (which says what to do) and the exit code.
struct CHostError {
  int code;
  std::wstring message;
};

// The exception being handled, in words (a CHostError's message, an engine
// exception's text, "error 0x...", ...); only inside a catch block.
std::wstring ExceptionText();

}  // namespace host
