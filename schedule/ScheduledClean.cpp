#include "schedule/ScheduledClean.h"

#include <taskschd.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <cwctype>

#include "core/Handles.h"
#include "core/RefCounting.h"
#include "profiles/UserProfiles.h"

namespace {

// Two interfaces of the Windows SDK that MinGW's taskschd.h leaves out, as
// the system declares them.
struct IWeeklyTrigger : ITrigger {
  virtual HRESULT STDMETHODCALLTYPE get_DaysOfWeek(short* days) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DaysOfWeek(short days) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_WeeksInterval(short* weeks) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_WeeksInterval(short weeks) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RandomDelay(BSTR* delay) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RandomDelay(BSTR delay) = 0;
};
struct IMonthlyTrigger : ITrigger {
  virtual HRESULT STDMETHODCALLTYPE get_DaysOfMonth(long* days) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DaysOfMonth(long days) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MonthsOfYear(short* months) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MonthsOfYear(short months) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RunOnLastDayOfMonth(VARIANT_BOOL* last) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RunOnLastDayOfMonth(VARIANT_BOOL last) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RandomDelay(BSTR* delay) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RandomDelay(BSTR delay) = 0;
};
const IID IID_IWeeklyTrigger = {0x5038fc98, 0x82ff, 0x436d, {0x87, 0x28, 0xa5, 0x12, 0xa5, 0x7c, 0x9d, 0xc1}};
const IID IID_IMonthlyTrigger = {0x97c45ef1, 0x6b02, 0x4a1a, {0x9c, 0x0e, 0x1e, 0xbf, 0xba, 0x15, 0x00, 0xac}};

constexpr HRESULT kHasNotRun = 0x00041303;  // SCHED_S_TASK_HAS_NOT_RUN
constexpr const wchar_t* kMaking = L"the Task Scheduler of this system cannot make the scheduled clean";
constexpr const wchar_t* kReading = L"the Task Scheduler cannot show the scheduled clean";
const wchar_t* const kDays[] = {L"Sunday", L"Monday", L"Tuesday", L"Wednesday", L"Thursday", L"Friday", L"Saturday"};

[[noreturn]] void Fail(const std::wstring& message, HRESULT hr) {
  throw CScheduleException(CString(message.c_str()), hr);
}

void Check(HRESULT hr, const wchar_t* call, const wchar_t* doing) {
  if (FAILED(hr)) Fail(std::wstring(doing) + L": " + call + L" failed", hr);
}

std::wstring Hex(HRESULT hr) {
  wchar_t text[16];
  swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(hr));
  return text;
}

// What the system says of a call it could not answer, for the notes.
std::wstring NotSaid(const wchar_t* call, HRESULT hr) {
  return std::wstring(L"the system does not say (") + call + L": " + Hex(hr) +
         (hr == E_NOTIMPL ? L", not implemented here)" : L")");
}

// COM for the duration of one call; a thread that has it already keeps its apartment.
class CComScope {
 public:
  CComScope() {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(hr)) {
      m_uninit = broom::unique_couninitialize(true);
    } else if (hr != RPC_E_CHANGED_MODE) {
      Fail(L"COM cannot start on this thread: CoInitializeEx failed", hr);
    }
  }

 private:
  broom::unique_couninitialize m_uninit;
};

broom::unique_bstr Bstr(const std::wstring& text) {
  broom::unique_bstr out(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
  if (!out) Fail(L"out of memory", E_OUTOFMEMORY);
  return out;
}

std::wstring Text(BSTR text) { return text ? std::wstring(text, SysStringLen(text)) : std::wstring(); }

VARIANT Empty() {
  VARIANT v;
  VariantInit(&v);
  return v;
}

bool IsMissing(HRESULT hr) {
  return hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) || hr == HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
}

CRefPtr<ITaskService> Connect() {
  CRefPtr<ITaskService> service;
  Check(CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER, IID_ITaskService,
                         reinterpret_cast<void**>(service.Receive())),
        L"CoCreateInstance(TaskScheduler)", L"the Task Scheduler cannot be reached");
  Check(service->Connect(Empty(), Empty(), Empty(), Empty()), L"ITaskService::Connect",
        L"the Task Scheduler cannot be reached");
  return service;
}

// The folder, or null when it does not exist.
CRefPtr<ITaskFolder> FindFolder(ITaskService* service, const std::wstring& path) {
  CRefPtr<ITaskFolder> folder;
  HRESULT hr = service->GetFolder(Bstr(path).get(), folder.Receive());
  if (IsMissing(hr)) return nullptr;
  Check(hr, L"ITaskService::GetFolder", L"the Task Scheduler's folders cannot be read");
  return folder;
}

void SplitFolder(const std::wstring& path, std::wstring& parent, std::wstring& leaf) {
  size_t slash = path.find_last_of(L'\\');
  parent = slash == 0 || slash == std::wstring::npos ? L"\\" : path.substr(0, slash);
  leaf = slash == std::wstring::npos ? path : path.substr(slash + 1);
}

// The current user as DOMAIN\name, for the task's principal.
std::wstring CurrentUser() {
  std::wstring name = CUserProfiles::CurrentUserName();
  if (name.empty()) Fail(L"the current user cannot be named", HRESULT_FROM_WIN32(GetLastError()));
  return name;
}

bool IsFullPath(const std::wstring& path) {
  return (path.size() > 3 && iswalpha(path[0]) && path[1] == L':' && path[2] == L'\\') ||
         (path.size() > 2 && path[0] == L'\\' && path[1] == L'\\');
}

bool LocalTimeOf(DATE date, SYSTEMTIME& out) { return date != 0 && VariantTimeToSystemTime(date, &out); }

// The first set bit's number, or -1.
int FirstBit(unsigned long mask) {
  for (int i = 0; i < 32; ++i)
    if (mask & (1ul << i)) return i;
  return -1;
}

void ReadTrigger(ITaskDefinition* definition, SScheduleInfo& info) {
  CRefPtr<ITriggerCollection> triggers;
  LONG count = 0;
  HRESULT hr = definition->get_Triggers(triggers.Receive());
  if (SUCCEEDED(hr)) hr = triggers->get_Count(&count);
  if (FAILED(hr)) {
    info.whenNote = NotSaid(L"ITriggerCollection::get_Count", hr);
    return;
  }
  if (count != 1) {
    info.whenNote = L"the task has " + std::to_wstring(count) + L" triggers; Broom makes one";
    return;
  }
  CRefPtr<ITrigger> trigger;
  TASK_TRIGGER_TYPE2 type = TASK_TRIGGER_EVENT;
  hr = triggers->get_Item(1, trigger.Receive());
  if (SUCCEEDED(hr)) hr = trigger->get_Type(&type);
  if (FAILED(hr)) {
    info.whenNote = NotSaid(L"ITriggerCollection::get_Item", hr);
    return;
  }
  broom::unique_bstr start;
  hr = trigger->get_StartBoundary(start.addressof());
  unsigned year, month, dayOfMonth, hour, minute;
  if (FAILED(hr) || swscanf(Text(start.get()).c_str(), L"%4u-%2u-%2uT%2u:%2u", &year, &month, &dayOfMonth, &hour,
                            &minute) != 5 || hour > 23 || minute > 59) {
    info.whenNote = FAILED(hr) ? NotSaid(L"ITrigger::get_StartBoundary", hr)
                               : L"its start '" + Text(start.get()) + L"' is not a date and time";
    return;
  }
  info.hour = hour;
  info.minute = minute;
  if (type == TASK_TRIGGER_DAILY) {
    CRefPtr<IDailyTrigger> daily;
    short interval = 0;
    hr = trigger->QueryInterface(IID_IDailyTrigger, reinterpret_cast<void**>(daily.Receive()));
    if (SUCCEEDED(hr)) hr = daily->get_DaysInterval(&interval);
    if (FAILED(hr) || interval != 1) {
      info.whenNote = FAILED(hr) ? NotSaid(L"IDailyTrigger::get_DaysInterval", hr)
                                 : L"it runs every " + std::to_wstring(interval) + L" days";
      return;
    }
    info.frequency = EScheduleFrequency::daily;
    info.day = -1;
  } else if (type == TASK_TRIGGER_WEEKLY) {
    CRefPtr<IWeeklyTrigger> weekly;
    short days = 0, interval = 0;
    hr = trigger->QueryInterface(IID_IWeeklyTrigger, reinterpret_cast<void**>(weekly.Receive()));
    if (SUCCEEDED(hr)) hr = weekly->get_DaysOfWeek(&days);
    if (SUCCEEDED(hr)) hr = weekly->get_WeeksInterval(&interval);
    if (FAILED(hr) || interval != 1 || FirstBit(static_cast<unsigned short>(days)) < 0 ||
        (days & (days - 1)) != 0) {
      info.whenNote = FAILED(hr) ? NotSaid(L"IWeeklyTrigger", hr) : L"its weekly trigger is not one Broom makes";
      return;
    }
    info.frequency = EScheduleFrequency::weekly;
    info.day = FirstBit(static_cast<unsigned short>(days));
  } else if (type == TASK_TRIGGER_MONTHLY) {
    CRefPtr<IMonthlyTrigger> monthly;
    long days = 0;
    short months = 0;
    hr = trigger->QueryInterface(IID_IMonthlyTrigger, reinterpret_cast<void**>(monthly.Receive()));
    if (SUCCEEDED(hr)) hr = monthly->get_DaysOfMonth(&days);
    if (SUCCEEDED(hr)) hr = monthly->get_MonthsOfYear(&months);
    if (FAILED(hr) || (months & 0xFFF) != 0xFFF || days == 0 || (days & (days - 1)) != 0) {
      info.whenNote = FAILED(hr) ? NotSaid(L"IMonthlyTrigger", hr) : L"its monthly trigger is not one Broom makes";
      return;
    }
    info.frequency = EScheduleFrequency::monthly;
    info.day = FirstBit(static_cast<unsigned long>(days)) + 1;
  } else {
    info.whenNote = L"its trigger (type " + std::to_wstring(type) + L") is not one Broom makes";
    return;
  }
  info.whenKnown = true;
}

void ReadAction(ITaskDefinition* definition, SScheduleInfo& info) {
  CRefPtr<IActionCollection> actions;
  LONG count = 0;
  HRESULT hr = definition->get_Actions(actions.Receive());
  if (SUCCEEDED(hr)) hr = actions->get_Count(&count);
  if (FAILED(hr)) {
    info.commandNote = NotSaid(L"IActionCollection::get_Count", hr);
    return;
  }
  if (count != 1) {
    info.commandNote = L"the task has " + std::to_wstring(count) + L" actions; Broom makes one";
    return;
  }
  CRefPtr<IAction> action;
  CRefPtr<IExecAction> exec;
  broom::unique_bstr path, arguments;
  hr = actions->get_Item(1, action.Receive());
  if (SUCCEEDED(hr)) hr = action->QueryInterface(IID_IExecAction, reinterpret_cast<void**>(exec.Receive()));
  if (SUCCEEDED(hr)) hr = exec->get_Path(path.addressof());
  if (SUCCEEDED(hr)) hr = exec->get_Arguments(arguments.addressof());
  if (FAILED(hr)) {
    info.commandNote = NotSaid(L"IExecAction", hr);
    return;
  }
  info.program = Text(path.get());
  info.arguments = Text(arguments.get());
  info.commandKnown = true;
}

SScheduleInfo ReadTask(ITaskFolder* folder, const std::wstring& name) {
  SScheduleInfo info;
  CRefPtr<IRegisteredTask> task;
  HRESULT hr = folder->GetTask(Bstr(name).get(), task.Receive());
  if (IsMissing(hr)) return info;
  Check(hr, L"ITaskFolder::GetTask", kReading);
  info.exists = true;

  TASK_STATE state = TASK_STATE_UNKNOWN;
  VARIANT_BOOL enabled = VARIANT_FALSE;
  if (FAILED(task->get_State(&state))) state = TASK_STATE_UNKNOWN;
  info.enabled = SUCCEEDED(task->get_Enabled(&enabled)) && enabled != VARIANT_FALSE;
  const wchar_t* const states[] = {L"unknown", L"disabled", L"queued", L"ready", L"running"};
  info.state = state >= TASK_STATE_UNKNOWN && state <= TASK_STATE_RUNNING ? states[state] : L"unknown";

  CRefPtr<ITaskDefinition> definition;
  Check(task->get_Definition(definition.Receive()), L"IRegisteredTask::get_Definition", kReading);
  ReadTrigger(definition, info);
  ReadAction(definition, info);

  DATE date = 0;
  hr = task->get_LastRunTime(&date);
  if (hr == kHasNotRun) {
    info.last = SScheduleInfo::lastNever;
  } else if (hr == S_OK && LocalTimeOf(date, info.lastRun)) {
    info.last = SScheduleInfo::lastAt;
  } else {
    info.lastNote = FAILED(hr) ? NotSaid(L"IRegisteredTask::get_LastRunTime", hr) : L"the system gives no time";
  }
  LONG result = 0;
  if (info.last == SScheduleInfo::lastAt && SUCCEEDED(task->get_LastTaskResult(&result))) {
    info.lastResultKnown = true;
    info.lastResult = result;
  }
  date = 0;
  hr = task->get_NextRunTime(&date);
  if (hr == S_OK && LocalTimeOf(date, info.nextRun))
    info.nextKnown = true;
  else
    info.nextNote = FAILED(hr) ? NotSaid(L"IRegisteredTask::get_NextRunTime", hr) : L"no run is planned";
  return info;
}

// Builds the definition and checks that it holds what was put in, before
// anything reaches the system.
CRefPtr<ITaskDefinition> MakeDefinition(ITaskService* service, const SScheduleRequest& request, int day) {
  CRefPtr<ITaskDefinition> definition;
  Check(service->NewTask(0, definition.Receive()), L"ITaskService::NewTask", kMaking);

  CRefPtr<IRegistrationInfo> registration;
  Check(definition->get_RegistrationInfo(registration.Receive()), L"ITaskDefinition::get_RegistrationInfo", kMaking);
  Check(registration->put_Author(Bstr(L"Broom").get()), L"IRegistrationInfo::put_Author", kMaking);
  Check(registration->put_Description(Bstr(L"Cleans this PC with Broom on a schedule.").get()),
        L"IRegistrationInfo::put_Description", kMaking);

  CRefPtr<IPrincipal> principal;
  Check(definition->get_Principal(principal.Receive()), L"ITaskDefinition::get_Principal", kMaking);
  Check(principal->put_UserId(Bstr(CurrentUser()).get()), L"IPrincipal::put_UserId", kMaking);

  CRefPtr<ITaskSettings> settings;
  Check(definition->get_Settings(settings.Receive()), L"ITaskDefinition::get_Settings", kMaking);
  // A run missed while the PC was off starts when it is back.
  Check(settings->put_StartWhenAvailable(VARIANT_TRUE), L"ITaskSettings::put_StartWhenAvailable", kMaking);
  Check(settings->put_MultipleInstances(TASK_INSTANCES_IGNORE_NEW), L"ITaskSettings::put_MultipleInstances", kMaking);
  Check(settings->put_ExecutionTimeLimit(Bstr(L"PT4H").get()), L"ITaskSettings::put_ExecutionTimeLimit", kMaking);

  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t start[32];
  swprintf(start, 32, L"%04u-%02u-%02uT%02u:%02u:00", now.wYear, now.wMonth, now.wDay, request.hour, request.minute);

  CRefPtr<ITriggerCollection> triggers;
  CRefPtr<ITrigger> trigger;
  Check(definition->get_Triggers(triggers.Receive()), L"ITaskDefinition::get_Triggers", kMaking);
  const TASK_TRIGGER_TYPE2 types[] = {TASK_TRIGGER_DAILY, TASK_TRIGGER_WEEKLY, TASK_TRIGGER_MONTHLY};
  const wchar_t* const creates[] = {L"ITriggerCollection::Create(daily)", L"ITriggerCollection::Create(weekly)",
                                    L"ITriggerCollection::Create(monthly)"};
  size_t kind = static_cast<size_t>(request.frequency);
  Check(triggers->Create(types[kind], trigger.Receive()), creates[kind], kMaking);
  Check(trigger->put_StartBoundary(Bstr(start).get()), L"ITrigger::put_StartBoundary", kMaking);
  if (request.frequency == EScheduleFrequency::daily) {
    CRefPtr<IDailyTrigger> daily;
    Check(trigger->QueryInterface(IID_IDailyTrigger, reinterpret_cast<void**>(daily.Receive())),
          L"QueryInterface(IDailyTrigger)", kMaking);
    Check(daily->put_DaysInterval(1), L"IDailyTrigger::put_DaysInterval", kMaking);
  } else if (request.frequency == EScheduleFrequency::weekly) {
    CRefPtr<IWeeklyTrigger> weekly;
    Check(trigger->QueryInterface(IID_IWeeklyTrigger, reinterpret_cast<void**>(weekly.Receive())),
          L"QueryInterface(IWeeklyTrigger)", kMaking);
    Check(weekly->put_DaysOfWeek(static_cast<short>(1 << day)), L"IWeeklyTrigger::put_DaysOfWeek", kMaking);
    Check(weekly->put_WeeksInterval(1), L"IWeeklyTrigger::put_WeeksInterval", kMaking);
  } else {
    CRefPtr<IMonthlyTrigger> monthly;
    Check(trigger->QueryInterface(IID_IMonthlyTrigger, reinterpret_cast<void**>(monthly.Receive())),
          L"QueryInterface(IMonthlyTrigger)", kMaking);
    Check(monthly->put_DaysOfMonth(1l << (day - 1)), L"IMonthlyTrigger::put_DaysOfMonth", kMaking);
    Check(monthly->put_MonthsOfYear(0xFFF), L"IMonthlyTrigger::put_MonthsOfYear", kMaking);
  }
  LONG count = 0;
  Check(triggers->get_Count(&count), L"ITriggerCollection::get_Count", kMaking);
  if (count != 1) Fail(std::wstring(kMaking) + L": the task did not keep its trigger", E_UNEXPECTED);

  CRefPtr<IActionCollection> actions;
  CRefPtr<IAction> action;
  CRefPtr<IExecAction> exec;
  Check(definition->get_Actions(actions.Receive()), L"ITaskDefinition::get_Actions", kMaking);
  Check(actions->Create(TASK_ACTION_EXEC, action.Receive()), L"IActionCollection::Create", kMaking);
  Check(action->QueryInterface(IID_IExecAction, reinterpret_cast<void**>(exec.Receive())),
        L"QueryInterface(IExecAction)", kMaking);
  Check(exec->put_Path(Bstr(request.program).get()), L"IExecAction::put_Path", kMaking);
  Check(exec->put_Arguments(Bstr(request.arguments).get()), L"IExecAction::put_Arguments", kMaking);
  std::wstring folder = request.program.substr(0, request.program.find_last_of(L'\\'));
  Check(exec->put_WorkingDirectory(Bstr(folder).get()), L"IExecAction::put_WorkingDirectory", kMaking);
  Check(actions->get_Count(&count), L"IActionCollection::get_Count", kMaking);
  if (count != 1) Fail(std::wstring(kMaking) + L": the task did not keep its command", E_UNEXPECTED);
  return definition;
}

std::wstring Clock(unsigned hour, unsigned minute) {
  wchar_t text[8];
  swprintf(text, 8, L"%02u:%02u", hour, minute);
  return text;
}

}  // namespace

CString CScheduleException::GetErrorMessage() {
  CString out = m_appMessage;
  wchar_t* text = nullptr;
  DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                           nullptr, static_cast<DWORD>(m_result), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  broom::unique_hlocal hold(text);
  std::wstring reason = n ? std::wstring(text, n) : std::wstring();
  while (!reason.empty() && (iswspace(reason.back()) || reason.back() == L'.')) reason.pop_back();
  out += (L" (" + Hex(m_result) + (reason.empty() ? L"" : L": " + reason) + L")").c_str();
  return out;
}

CScheduledClean::CScheduledClean(const wchar_t* folder, const wchar_t* name) : m_folder(folder), m_name(name) {}

void CScheduledClean::Register(const SScheduleRequest& request) const {
  if (request.hour > 23 || request.minute > 59) Fail(L"the time of day must lie between 00:00 and 23:59", E_INVALIDARG);
  if (!IsFullPath(request.program)) Fail(L"the program to schedule must be given by its full path", E_INVALIDARG);
  int day = request.day;
  if (day < 0 && request.frequency != EScheduleFrequency::daily) {
    SYSTEMTIME now;
    GetLocalTime(&now);
    day = request.frequency == EScheduleFrequency::weekly ? now.wDayOfWeek : std::min<int>(now.wDay, 28);
  }
  if (request.frequency == EScheduleFrequency::weekly && day > 6)
    Fail(L"a weekly clean runs on a day from 0 (Sunday) to 6 (Saturday)", E_INVALIDARG);
  if (request.frequency == EScheduleFrequency::monthly && (day < 1 || day > 28))
    Fail(L"a monthly clean runs on a day from 1 to 28, which every month has", E_INVALIDARG);
  if (request.frequency == EScheduleFrequency::daily) day = -1;

  CComScope com;
  CRefPtr<ITaskService> service = Connect();
  CRefPtr<ITaskDefinition> definition = MakeDefinition(service, request, day);

  std::wstring parentPath, leaf;
  SplitFolder(m_folder, parentPath, leaf);
  CRefPtr<ITaskFolder> folder = FindFolder(service, m_folder);
  bool madeFolder = false;
  if (!folder) {
    CRefPtr<ITaskFolder> parent = FindFolder(service, parentPath);
    if (!parent) Fail(L"the Task Scheduler folder '" + parentPath + L"' does not exist", HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
    Check(parent->CreateFolder(Bstr(leaf).get(), Empty(), folder.Receive()), L"ITaskFolder::CreateFolder", kMaking);
    madeFolder = true;
  }
  // Whatever fails from here takes the task and a folder made for it away again.
  auto rollback = broom::scope_exit([&] {
    folder->DeleteTask(Bstr(m_name).get(), 0);
    CRefPtr<ITaskFolder> parent = madeFolder ? FindFolder(service, parentPath) : nullptr;
    if (parent) parent->DeleteFolder(Bstr(leaf).get(), 0);
  });

  std::wstring user = CurrentUser();
  broom::unique_bstr userText = Bstr(user);
  VARIANT userId = Empty();
  userId.vt = VT_BSTR;
  userId.bstrVal = userText.get();
  CRefPtr<IRegisteredTask> registered;
  Check(folder->RegisterTaskDefinition(Bstr(m_name).get(), definition, TASK_CREATE_OR_UPDATE, userId, Empty(),
                                       TASK_LOGON_INTERACTIVE_TOKEN, Empty(), registered.Receive()),
        L"ITaskFolder::RegisterTaskDefinition", kMaking);
  registered = nullptr;

  SScheduleInfo back = ReadTask(folder, m_name);
  std::wstring wrong;
  if (!back.exists)
    wrong = L"the task is not there";
  else if (!back.whenKnown)
    wrong = L"its schedule cannot be read back: " + back.whenNote;
  else if (back.frequency != request.frequency || back.hour != request.hour || back.minute != request.minute ||
           back.day != day)
    wrong = L"it reads back as " + DescribeWhen(back);
  else if (!back.commandKnown)
    wrong = L"its command cannot be read back: " + back.commandNote;
  else if (_wcsicmp(back.program.c_str(), request.program.c_str()) != 0 || back.arguments != request.arguments)
    wrong = L"it reads back to run '" + back.program + L"' " + back.arguments;
  if (!wrong.empty())
    Fail(std::wstring(kMaking) + L": it was registered, but " + wrong + L"; it was removed again", E_UNEXPECTED);
  rollback.release();
}

SScheduleInfo CScheduledClean::Read() const {
  CComScope com;
  CRefPtr<ITaskService> service = Connect();
  CRefPtr<ITaskFolder> folder = FindFolder(service, m_folder);
  return folder ? ReadTask(folder, m_name) : SScheduleInfo();
}

bool CScheduledClean::Remove() const {
  CComScope com;
  CRefPtr<ITaskService> service = Connect();
  CRefPtr<ITaskFolder> folder = FindFolder(service, m_folder);
  if (!folder) return false;
  CRefPtr<IRegisteredTask> task;
  HRESULT hr = folder->GetTask(Bstr(m_name).get(), task.Receive());
  if (IsMissing(hr)) return false;
  Check(hr, L"ITaskFolder::GetTask", L"the scheduled clean cannot be removed");
  task = nullptr;
  Check(folder->DeleteTask(Bstr(m_name).get(), 0), L"ITaskFolder::DeleteTask", L"the scheduled clean cannot be removed");
  hr = folder->GetTask(Bstr(m_name).get(), task.Receive());
  if (!IsMissing(hr))
    Fail(L"the scheduled clean is still there after it was deleted: ITaskFolder::GetTask", SUCCEEDED(hr) ? E_FAIL : hr);
  // The folder goes too; the system keeps one that still holds something.
  std::wstring parentPath, leaf;
  SplitFolder(m_folder, parentPath, leaf);
  folder = nullptr;
  if (CRefPtr<ITaskFolder> parent = FindFolder(service, parentPath)) parent->DeleteFolder(Bstr(leaf).get(), 0);
  return true;
}

const wchar_t* CScheduledClean::FrequencyName(EScheduleFrequency frequency) {
  switch (frequency) {
    case EScheduleFrequency::weekly: return L"weekly";
    case EScheduleFrequency::monthly: return L"monthly";
    case EScheduleFrequency::daily: break;
  }
  return L"daily";
}

bool CScheduledClean::FrequencyFromName(const wchar_t* name, EScheduleFrequency& frequency) {
  for (EScheduleFrequency f : {EScheduleFrequency::daily, EScheduleFrequency::weekly, EScheduleFrequency::monthly}) {
    if (name && _wcsicmp(name, FrequencyName(f)) == 0) {
      frequency = f;
      return true;
    }
  }
  return false;
}

bool CScheduledClean::ParseTime(const wchar_t* text, unsigned& hour, unsigned& minute) {
  if (!text) return false;
  size_t length = wcslen(text);
  if ((length != 4 && length != 5) || text[length - 3] != L':') return false;
  for (size_t i = 0; i < length; ++i)
    if (i != length - 3 && !iswdigit(text[i])) return false;
  unsigned h = static_cast<unsigned>(_wtoi(text)), m = static_cast<unsigned>(_wtoi(text + length - 2));
  if (h > 23 || m > 59) return false;
  hour = h;
  minute = m;
  return true;
}

std::wstring CScheduledClean::DescribeWhen(const SScheduleInfo& info) {
  if (!info.whenKnown) return L"at times Broom cannot read: " + info.whenNote;
  std::wstring at = L" at " + Clock(info.hour, info.minute);
  switch (info.frequency) {
    case EScheduleFrequency::weekly:
      return L"weekly on " + std::wstring(info.day >= 0 && info.day <= 6 ? kDays[info.day] : L"?") + at;
    case EScheduleFrequency::monthly: return L"monthly on day " + std::to_wstring(info.day) + at;
    case EScheduleFrequency::daily: break;
  }
  return L"daily" + at;
}
