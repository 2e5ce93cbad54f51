#include "app/PolicySchedule.h"

#include "app/Session.h"
#include "core/CommandLine.h"

namespace host {

namespace {

// The hour a policy's task runs at: the middle of a working day, when the PCs are on.
constexpr unsigned kPolicyHour = 12;

}  // namespace

std::wstring ScheduledArguments(const std::vector<std::wstring>& items) {
  std::wstring arguments = L"clean --yes --scheduled";
  for (const std::wstring& item : items) arguments += L" " + broom::QuoteArgument(item);
  return arguments;
}

std::wstring ConsoleProgram() { return ExeFolder() + L"\\broom.exe"; }

bool PolicySchedule(const CPolicies& policies, EScheduleFrequency& frequency) {
  const CPolicies::SValue* value = policies.Get(EPolicy::schedule);
  return value && value->source == EPolicySource::machine &&
         CScheduledClean::FrequencyFromName(value->text.c_str(), frequency);
}

std::wstring KeepPolicySchedule(const CPolicies& policies) {
  EScheduleFrequency frequency;
  if (!PolicySchedule(policies, frequency)) return std::wstring();
  if (GetFileAttributesW((ExeFolder() + L"\\portable.txt").c_str()) != INVALID_FILE_ATTRIBUTES) return std::wstring();
  SScheduleRequest request;
  request.frequency = frequency;
  request.hour = kPolicyHour;
  request.program = ConsoleProgram();
  request.arguments = ScheduledArguments(policies.List(EPolicy::scheduleItems));
  CScheduledClean task;
  try {
    SScheduleInfo info = task.Read();
    if (info.exists && info.whenKnown && info.frequency == frequency && info.commandKnown &&
        _wcsicmp(info.program.c_str(), request.program.c_str()) == 0 && info.arguments == request.arguments)
      return std::wstring();
    task.Register(request);
  } catch (CScheduleException& e) {
    return std::wstring(L"the scheduled clean your organisation sets (Schedule: ") +
           CScheduledClean::FrequencyName(frequency) + L") could not be registered: " + e.GetErrorMessage().GetString();
  }
  return std::wstring();
}

}  // namespace host
