// The scheduled clean against the system's Task Scheduler, each test in a
// task folder of its own, with what is there read back through the same COM
// interface. Wine's Task Scheduler keeps no trigger and no command in a task
// (ITriggerCollection::get_Count and IActionCollection::get_Count are not
// implemented, and the stored task holds an empty <Triggers/> and <Exec/>),
// so there registering must fail and leave nothing behind; where the system
// holds a task whole, the round trip runs instead.
#include <windows.h>
#include <taskschd.h>

#include <gtest/gtest.h>

#include <string>

#include "common/TestFiles.h"
#include "core/Handles.h"
#include "core/RefCounting.h"
#include "schedule/ScheduledClean.h"

namespace {

using broomtest::Narrow;

VARIANT Empty() {
  VARIANT v;
  VariantInit(&v);
  return v;
}

// The Task Scheduler as the test sees it, apart from the code under test.
class Scheduler {
 public:
  Scheduler() {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    m_com = broom::unique_couninitialize(SUCCEEDED(hr));
    EXPECT_EQ(S_OK, CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER, IID_ITaskService,
                                     reinterpret_cast<void**>(m_service.Receive())));
    EXPECT_EQ(S_OK, m_service->Connect(Empty(), Empty(), Empty(), Empty()));
  }
  CRefPtr<ITaskFolder> Folder(const std::wstring& path) {
    CRefPtr<ITaskFolder> folder;
    broom::unique_bstr name(SysAllocString(path.c_str()));
    m_service->GetFolder(name.get(), folder.Receive());
    return folder;
  }
  bool HasTask(const std::wstring& folderPath, const std::wstring& task) {
    CRefPtr<ITaskFolder> folder = Folder(folderPath);
    CRefPtr<IRegisteredTask> registered;
    broom::unique_bstr name(SysAllocString(task.c_str()));
    return folder && SUCCEEDED(folder->GetTask(name.get(), registered.Receive()));
  }
  // A task registered without Broom: a folder below the root and a task with neither trigger nor action.
  void RegisterBare(const std::wstring& leaf, const std::wstring& task) {
    CRefPtr<ITaskFolder> root = Folder(L"\\"), folder;
    broom::unique_bstr folderName(SysAllocString(leaf.c_str())), taskName(SysAllocString(task.c_str()));
    ASSERT_EQ(S_OK, root->CreateFolder(folderName.get(), Empty(), folder.Receive()));
    CRefPtr<ITaskDefinition> definition;
    ASSERT_EQ(S_OK, m_service->NewTask(0, definition.Receive()));
    CRefPtr<IRegisteredTask> registered;
    ASSERT_EQ(S_OK, folder->RegisterTaskDefinition(taskName.get(), definition, TASK_CREATE_OR_UPDATE, Empty(), Empty(),
                                                   TASK_LOGON_INTERACTIVE_TOKEN, Empty(), registered.Receive()));
  }
  void RemoveAll(const std::wstring& leaf, const std::wstring& task) {
    broom::unique_bstr folderName(SysAllocString(leaf.c_str())), taskName(SysAllocString(task.c_str()));
    if (CRefPtr<ITaskFolder> folder = Folder(L"\\" + leaf)) folder->DeleteTask(taskName.get(), 0);
    if (CRefPtr<ITaskFolder> root = Folder(L"\\")) root->DeleteFolder(folderName.get(), 0);
  }

 private:
  broom::unique_couninitialize m_com;
  CRefPtr<ITaskService> m_service;
};

class ScheduledClean : public testing::Test {
 protected:
  void SetUp() override {
    static int counter = 0;
    m_leaf = L"BroomTest-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++counter);
    m_folder = L"\\" + m_leaf;
  }
  void TearDown() override {
    Scheduler().RemoveAll(m_leaf, m_task);
  }
  SScheduleRequest Request(EScheduleFrequency frequency) const {
    SScheduleRequest request;
    request.frequency = frequency;
    request.hour = 3;
    request.minute = 30;
    request.day = frequency == EScheduleFrequency::weekly ? 1 : frequency == EScheduleFrequency::monthly ? 15 : -1;
    request.program = L"C:\\Program Files\\Broom\\broom.exe";
    request.arguments = L"clean --yes --scheduled \"System/Temporary files\"";
    return request;
  }

  std::wstring m_leaf, m_folder;
  const std::wstring m_task = L"Broom scheduled clean";
};

TEST_F(ScheduledClean, RegistersShowsAndRemovesTheTaskOrSaysWhichCallTheSystemLacksAndLeavesNothing) {
  struct Case {
    EScheduleFrequency frequency;
    const char* missingCall;  // what Wine lacks for it
  };
  const Case cases[] = {{EScheduleFrequency::daily, "ITriggerCollection::get_Count"},
                        {EScheduleFrequency::weekly, "ITriggerCollection::Create(weekly)"},
                        {EScheduleFrequency::monthly, "ITriggerCollection::Create(monthly)"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(Narrow(CScheduledClean::FrequencyName(c.frequency)));
    CScheduledClean schedule(m_folder.c_str(), m_task.c_str());
    const SScheduleRequest request = Request(c.frequency);
    try {
      schedule.Register(request);
    } catch (CScheduleException& e) {
      // The system cannot hold the task: the call is named, and nothing stays.
      const std::string message = Narrow(e.GetErrorMessage().GetString());
      EXPECT_EQ(E_NOTIMPL, e.GetResult()) << message;
      EXPECT_NE(std::string::npos, message.find(c.missingCall)) << message;
      EXPECT_NE(std::string::npos, message.find("0x80004001")) << message;
      EXPECT_FALSE(Scheduler().Folder(m_folder)) << "the folder was left behind";
      EXPECT_FALSE(schedule.Read().exists);
      continue;
    }
    ASSERT_TRUE(Scheduler().HasTask(m_folder, m_task));
    SScheduleInfo info = schedule.Read();
    ASSERT_TRUE(info.exists);
    ASSERT_TRUE(info.whenKnown) << Narrow(info.whenNote);
    EXPECT_EQ(c.frequency, info.frequency);
    EXPECT_EQ(3u, info.hour);
    EXPECT_EQ(30u, info.minute);
    EXPECT_EQ(request.day, info.day);
    ASSERT_TRUE(info.commandKnown) << Narrow(info.commandNote);
    EXPECT_EQ(request.program, info.program);
    EXPECT_EQ(request.arguments, info.arguments);
    EXPECT_NE(SScheduleInfo::lastAt, info.last);
    EXPECT_TRUE(schedule.Remove());
    EXPECT_FALSE(Scheduler().HasTask(m_folder, m_task));
    EXPECT_FALSE(Scheduler().Folder(m_folder));
  }
}

TEST_F(ScheduledClean, ShowsATaskItCannotReadWholeAsSuchAndRemovesItWithItsFolder) {
  CScheduledClean schedule(m_folder.c_str(), m_task.c_str());
  EXPECT_FALSE(schedule.Read().exists);
  EXPECT_FALSE(schedule.Remove());

  Scheduler().RegisterBare(m_leaf, m_task);
  SScheduleInfo info = schedule.Read();
  ASSERT_TRUE(info.exists);
  EXPECT_FALSE(info.whenKnown);
  EXPECT_FALSE(info.whenNote.empty());
  EXPECT_NE(std::wstring::npos, CScheduledClean::DescribeWhen(info).find(info.whenNote));
  EXPECT_FALSE(info.commandKnown);
  EXPECT_FALSE(info.commandNote.empty());
  // Wine says it never ran (SCHED_S_TASK_HAS_NOT_RUN) and cannot say when it runs next.
  EXPECT_NE(SScheduleInfo::lastAt, info.last);
  EXPECT_TRUE(info.nextKnown || !info.nextNote.empty());

  EXPECT_TRUE(schedule.Remove());
  EXPECT_FALSE(Scheduler().HasTask(m_folder, m_task));
  EXPECT_FALSE(Scheduler().Folder(m_folder));
  EXPECT_FALSE(schedule.Remove());
}

TEST_F(ScheduledClean, RefusesARequestOutOfRangeBeforeItReachesTheSystem) {
  CScheduledClean schedule(m_folder.c_str(), m_task.c_str());
  struct Case {
    const char* what;
    SScheduleRequest request;
  };
  SScheduleRequest lateHour = Request(EScheduleFrequency::daily), lateMinute = lateHour, relative = lateHour;
  lateHour.hour = 24;
  lateMinute.minute = 60;
  relative.program = L"broom.exe";
  SScheduleRequest day29 = Request(EScheduleFrequency::monthly), day0 = day29, weekday7 = Request(EScheduleFrequency::weekly);
  day29.day = 29;
  day0.day = 0;
  weekday7.day = 7;
  const Case cases[] = {{"hour 24", lateHour}, {"minute 60", lateMinute}, {"relative program", relative},
                        {"monthly day 29", day29}, {"monthly day 0", day0}, {"weekday 7", weekday7}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    try {
      schedule.Register(c.request);
      ADD_FAILURE() << "registered";
    } catch (CScheduleException& e) {
      EXPECT_EQ(E_INVALIDARG, e.GetResult());
    }
    EXPECT_FALSE(Scheduler().Folder(m_folder));
  }
}

TEST(ScheduleText, TimesOfDayAndFrequencies) {
  struct Case {
    const wchar_t* text;
    bool valid;
    unsigned hour, minute;
  };
  const Case cases[] = {{L"03:30", true, 3, 30}, {L"3:30", true, 3, 30},  {L"23:59", true, 23, 59},
                        {L"00:00", true, 0, 0},  {L"24:00", false, 0, 0}, {L"12:60", false, 0, 0},
                        {L"1230", false, 0, 0},  {L"12:3", false, 0, 0},  {L"ab:cd", false, 0, 0},
                        {L"", false, 0, 0},      {L"-1:30", false, 0, 0}, {L"123:00", false, 0, 0}};
  for (const Case& c : cases) {
    unsigned hour = 99, minute = 99;
    EXPECT_EQ(c.valid, CScheduledClean::ParseTime(c.text, hour, minute)) << Narrow(c.text);
    if (c.valid) {
      EXPECT_EQ(c.hour * 100 + c.minute, hour * 100 + minute) << Narrow(c.text);
    }
  }
  EScheduleFrequency frequency = EScheduleFrequency::daily;
  EXPECT_TRUE(CScheduledClean::FrequencyFromName(L"Monthly", frequency));
  EXPECT_EQ(EScheduleFrequency::monthly, frequency);
  EXPECT_FALSE(CScheduledClean::FrequencyFromName(L"hourly", frequency));

  SScheduleInfo info;
  info.whenKnown = true;
  info.frequency = EScheduleFrequency::weekly;
  info.day = 1;
  info.hour = 3;
  info.minute = 5;
  EXPECT_EQ(L"weekly on Monday at 03:05", CScheduledClean::DescribeWhen(info));
}

}  // namespace
