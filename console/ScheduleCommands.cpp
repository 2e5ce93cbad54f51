// broom schedule: registers, shows and removes the scheduled clean, a task
// of the Task Scheduler that runs 'broom clean --yes --scheduled'.
#include "console/Commands.h"

#include "app/PolicySchedule.h"
#include "app/Text.h"
#include "console/Console.h"

namespace host {

namespace {

std::wstring TimeText(const SYSTEMTIME& t) {
  wchar_t text[32];
  swprintf(text, 32, L"%04u-%02u-%02u %02u:%02u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute);
  return text;
}

// A failure of the Task Scheduler ends the command with exit code 1.
[[noreturn]] void Fail(CScheduleException& e, const wchar_t* what) {
  throw CHostError{exitCleanFailures, std::wstring(what) + L": " + e.GetErrorMessage().GetString()};
}

int Show(const CScheduledClean& task) {
  SScheduleInfo info;
  try {
    info = task.Read();
  } catch (CScheduleException& e) {
    Fail(e, L"the scheduled clean cannot be read");
  }
  if (!info.exists) {
    CConsole::Out(L"No scheduled clean is registered; 'broom schedule daily' registers one.\n");
    return exitOk;
  }
  std::wstring out = L"Scheduled clean (task '" + std::wstring(CScheduledClean::kFolder) + L"\\" +
                     CScheduledClean::kTaskName + L"'): " + CScheduledClean::DescribeWhen(info) + L"\n";
  out += info.commandKnown ? L"  Runs:      " + Quoted(info.program, 1024) + L" " + Printable(info.arguments) + L"\n"
                           : L"  Runs:      unknown: " + info.commandNote + L"\n";
  out += L"  State:     " + info.state + (info.enabled ? L"" : L" (disabled)") + L"\n";
  switch (info.last) {
    case SScheduleInfo::lastNever: out += L"  Last run:  never\n"; break;
    case SScheduleInfo::lastAt: {
      out += L"  Last run:  " + TimeText(info.lastRun);
      if (info.lastResultKnown) {
        wchar_t code[16];
        swprintf(code, 16, L"0x%08lX", static_cast<unsigned long>(info.lastResult));
        out += std::wstring(L", ended with ") + code;
      }
      out += L"\n";
      break;
    }
    case SScheduleInfo::lastUnknown: out += L"  Last run:  unknown: " + info.lastNote + L"\n"; break;
  }
  out += info.nextKnown ? L"  Next run:  " + TimeText(info.nextRun) + L"\n"
                        : L"  Next run:  unknown: " + info.nextNote + L"\n";
  CConsole::Out(out);
  return exitOk;
}

}  // namespace

int CmdSchedule(CSession& session, const SOptions& options) {
  CScheduledClean task;
  EScheduleFrequency forced;
  const bool byPolicy = PolicySchedule(session.Policies(), forced);
  if (options.schedule.empty()) {
    if (!options.at.empty()) throw CHostError{exitUsage, L"--at needs daily, weekly or monthly before it"};
    return Show(task);
  }
  const std::wstring when = Wide(options.schedule.front());
  if (_wcsicmp(when.c_str(), L"off") == 0) {
    if (options.schedule.size() > 1 || !options.at.empty())
      throw CHostError{exitUsage, L"'broom schedule off' takes nothing more"};
    if (byPolicy)
      throw CHostError{exitUsage, L"the scheduled clean is set by your organisation (Schedule policy) and cannot be "
                                  L"removed"};
    bool removed = false;
    try {
      removed = task.Remove();
    } catch (CScheduleException& e) {
      Fail(e, L"the scheduled clean could not be removed");
    }
    CConsole::Out(removed ? L"Removed the scheduled clean.\n" : L"No scheduled clean was registered.\n");
    return exitOk;
  }

  SScheduleRequest request;
  if (!CScheduledClean::FrequencyFromName(when.c_str(), request.frequency))
    throw CHostError{exitUsage, Quoted(when) + L" is not daily, weekly, monthly or off; run 'broom schedule --help'"};
  request.hour = 12;
  if (!options.at.empty() && !CScheduledClean::ParseTime(Wide(options.at).c_str(), request.hour, request.minute))
    throw CHostError{exitUsage, Quoted(Wide(options.at)) + L" after --at is not a time of day; write HH:MM, e.g. 03:30"};
  if (byPolicy)
    throw CHostError{exitUsage, std::wstring(L"the scheduled clean is set by your organisation (Schedule policy: ") +
                                    CScheduledClean::FrequencyName(forced) + L"); it cannot be changed here"};

  // Items are checked now, so the task never runs into a name that finds nothing.
  std::vector<std::wstring> items = WideList(std::vector<std::string>(options.schedule.begin() + 1, options.schedule.end()));
  if (!items.empty()) {
    LoadDefinitions(session, options);
    std::vector<std::wstring> notes;
    session.Select(items, true, notes);
    for (const std::wstring& note : notes) CConsole::Err(L"broom: " + note + L"\n");
  }
  request.program = ConsoleProgram();
  request.arguments = ScheduledArguments(items);
  // the definitions this command was given are the ones the task runs with
  std::wstring sources;
  for (const std::wstring& folder : WideList(options.defs)) sources += L"--defs \"" + FullPath(folder) + L"\" ";
  for (const std::wstring& file : WideList(options.winapp2)) sources += L"--winapp2 \"" + FullPath(file) + L"\" ";
  request.arguments = sources + request.arguments;
  try {
    task.Register(request);
  } catch (CScheduleException& e) {
    Fail(e, L"the scheduled clean could not be registered");
  }
  SScheduleInfo info;
  info.whenKnown = true;
  info.frequency = request.frequency;
  info.hour = request.hour;
  info.minute = request.minute;
  info.day = request.day;
  try {
    info = task.Read();
  } catch (CScheduleException&) {
  }
  CConsole::Out(L"Registered the scheduled clean: " + CScheduledClean::DescribeWhen(info) + L", cleaning " +
                (items.empty() ? std::wstring(L"the items on by default") : Plural(items.size(), L"item", L"items")) +
                L". 'broom schedule' shows it, 'broom schedule off' removes it.\n");
  return exitOk;
}

}  // namespace host
