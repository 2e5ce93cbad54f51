#pragma once
// What the fuzz worker does with one input: loads it into a fresh store, as
// a folder holding only that definition file or as a winapp2.ini file, and
// checks what the load left behind.
#include <string>

#include "fuzz/FuzzInputs.h"

namespace fuzz {

// What came of one input. Those before kFirstFailure are what an input may
// lead to; anything from it on fails the run.
enum Outcome : int {
  kAccepted,
  kRejected,
  kWinapp2Whole,    // a winapp2 file loaded with no line skipped
  kWinapp2Skipped,  // one loaded with lines skipped
  kWinapp2Refused,  // one refused whole (not a winapp2 file), with one note and nothing loaded
  kBufferOverflow,
  kPositionOutOfString,
  kInvalidArgument,
  kInvalidSubstring,
  kOtherLibrary,
  kOutOfMemory,
  kOtherAtl,
  kBadAlloc,
  kStd,
  kUnknown,
  kBroken,  // the load ended, but what it left is wrong
  kMemory,  // the load drove the worker's memory past the input's ceiling
  kOutcomes
};
extern const char* const kOutcomeNames[kOutcomes];
constexpr int kFirstFailure = kInvalidSubstring;

std::string Narrow(const wchar_t* text);

// folder holds the input as its only file.
int LoadDefinitions(const std::wstring& folder, const Input& in, std::string& text);
// file is the input. Every exception the winapp2 loader lets out is a failure.
int LoadWinapp2(const std::wstring& file, const Input& in, std::string& text);

}  // namespace fuzz
