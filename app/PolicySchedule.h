#pragma once
// The scheduled clean as both hosts register it: broom.exe beside the
// running program, "clean --yes --scheduled" and the items; and the task a
// machine's Schedule policy asks for, which an installed Broom registers
// for every user who starts it and keeps so.
#include <string>
#include <vector>

#include "policy/Policies.h"
#include "schedule/ScheduledClean.h"

namespace host {

// broom.exe's arguments for a scheduled clean of the items (none: the items
// on by default), each quoted as CommandLineToArgvW reads it back.
std::wstring ScheduledArguments(const std::vector<std::wstring>& items);
// broom.exe beside the running program.
std::wstring ConsoleProgram();

// The machine's Schedule policy, when one is in force (a user policy does
// not count: it is the machine's task to keep).
bool PolicySchedule(const CPolicies& policies, EScheduleFrequency& frequency);
// Registers the task the machine's policy asks for when it is missing or
// differs, in an installed Broom (not a portable copy). Empty when the task
// is as asked or no policy asks; otherwise what could not be done.
std::wstring KeepPolicySchedule(const CPolicies& policies);

}  // namespace host
