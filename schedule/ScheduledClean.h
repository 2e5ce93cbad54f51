#pragma once
// The scheduled clean: one task of the Task Scheduler, reached through its
// COM interface (ITaskService), in the task folder \Broom, that runs a
// command line daily, weekly or monthly at a local time, for the user who
// registers it and only while that user is logged on.
//
// Registering checks the definition before it reaches the system and reads
// the task back afterwards: a system whose Task Scheduler cannot hold the
// trigger or the command (Wine's, for one) gets an exception naming the call
// that failed, and no task is left behind that would not run as asked.
// Every call initialises COM on its thread for its own duration (joining
// the apartment the thread already has).
#include <windows.h>

#include <string>

#include "core/Exceptions.h"
#include "core/Export.h"

enum class EScheduleFrequency { daily, weekly, monthly };

struct SScheduleRequest {
  EScheduleFrequency frequency = EScheduleFrequency::daily;
  unsigned hour = 0;    // local time, 0 to 23
  unsigned minute = 0;  // 0 to 59
  // weekly: 0 (Sunday) to 6; monthly: 1 to 28; -1 takes today's weekday or
  // day of the month (a day after the 28th becomes the 28th, which every month has).
  int day = -1;
  std::wstring program;    // the full path of the program the task starts
  std::wstring arguments;  // its command line after the program, quoted as it needs
};

struct SScheduleInfo {
  bool exists = false;

  // When it runs, as its trigger says; whenKnown is false when the system
  // cannot say or the trigger is not one Broom makes, and whenNote says why.
  bool whenKnown = false;
  EScheduleFrequency frequency = EScheduleFrequency::daily;
  unsigned hour = 0;
  unsigned minute = 0;
  int day = -1;  // weekly: 0 (Sunday) to 6; monthly: 1 to 31; daily: -1
  std::wstring whenNote;

  // What it runs.
  bool commandKnown = false;
  std::wstring program;
  std::wstring arguments;
  std::wstring commandNote;

  bool enabled = false;
  std::wstring state;  // "ready", "running", "queued", "disabled" or "unknown"

  // Last and next run, where the system says; otherwise the notes say why not.
  enum ELastRun { lastUnknown, lastNever, lastAt };
  ELastRun last = lastUnknown;
  SYSTEMTIME lastRun{};  // local time
  std::wstring lastNote;
  bool lastResultKnown = false;
  long lastResult = 0;
  bool nextKnown = false;
  SYSTEMTIME nextRun{};  // local time
  std::wstring nextNote;
};

// A Task Scheduler call that failed: GetAppMessage says what was being done
// and which call failed; GetResult is its HRESULT.
class BROOM_API CScheduleException : public CBaseException {
 public:
  CScheduleException(const CString& appMessage, HRESULT result) : CBaseException(appMessage), m_result(result) {}
  CScheduleException(const CScheduleException&) = default;
  CScheduleException& operator=(const CScheduleException&) = default;

  // The message, then the system's text for the result when it has one.
  CString GetErrorMessage() override;
  HRESULT GetResult() const { return m_result; }

 private:
  HRESULT m_result;
};

class BROOM_API CScheduledClean {
 public:
  static constexpr const wchar_t* kFolder = L"\\Broom";
  static constexpr const wchar_t* kTaskName = L"Broom scheduled clean";

  // A folder path below the root ("\Broom") and a task name; tests use their own.
  explicit CScheduledClean(const wchar_t* folder = kFolder, const wchar_t* name = kTaskName);

  // Creates the folder when needed and registers the task, replacing one of
  // the same name. Throws CScheduleException, leaving no task and no folder
  // of its own making behind, when the request is out of range or the
  // system cannot make, store or show the task as asked.
  void Register(const SScheduleRequest& request) const;
  // What the system holds; exists is false when there is no such task.
  // Throws CScheduleException when the Task Scheduler cannot be reached.
  SScheduleInfo Read() const;
  // Deletes the task, and the folder when nothing else is in it. False when
  // there was no task. Throws CScheduleException when it stays.
  bool Remove() const;

  // "daily", "weekly", "monthly"; and back (any case), false for another word.
  static const wchar_t* FrequencyName(EScheduleFrequency frequency);
  static bool FrequencyFromName(const wchar_t* name, EScheduleFrequency& frequency);
  // "HH:MM" (or "H:MM") to hour and minute; false when it is not a time of day.
  static bool ParseTime(const wchar_t* text, unsigned& hour, unsigned& minute);
  // One line for a person: "weekly on Monday at 03:30".
  static std::wstring DescribeWhen(const SScheduleInfo& info);

 private:
  std::wstring m_folder;
  std::wstring m_name;
};
