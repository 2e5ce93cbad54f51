#pragma once
#include <windows.h>

#include <string>
#include <vector>

namespace broomtest {

// A fresh folder under the temporary folder, removed with everything in it
// when the holder goes. Path() has no trailing separator.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::wstring& Path() const { return m_path; }
  std::wstring operator/(const std::wstring& relative) const { return m_path + L"\\" + relative; }

 private:
  std::wstring m_path;
};

// Writes a file (creating missing parent folders) and returns its full path.
std::wstring WriteFile(const std::wstring& path, const std::string& bytes);
std::wstring WriteFile(const std::wstring& path, size_t size, char fill = 'x');
// Creates a folder and its missing parents.
void MakeDirs(const std::wstring& path);
// The whole content of a file; throws std::runtime_error when it cannot be read.
std::string ReadFile(const std::wstring& path);
bool Exists(const std::wstring& path);
// Removes a file or a folder tree, clearing read-only attributes on the way.
void RemoveTree(const std::wstring& path);
// Makes a Unix symbolic link (seen by Windows programs as a reparse point)
// at linkPath pointing to target; both are Windows paths on a Wine drive.
bool MakeUnixSymlink(const std::wstring& target, const std::wstring& linkPath);
// Removes such a link (Wine cannot remove a link to a folder itself).
bool RemoveUnixSymlink(const std::wstring& linkPath);

std::string Narrow(const std::wstring& text);  // UTF-8, for messages

// The folder of the running test program (the build's bin folder), without
// a trailing separator.
std::wstring ExeFolder();
// This process's environment block with name set to value (replacing any
// entry of that name, whatever its case), for CREATE_UNICODE_ENVIRONMENT.
std::vector<wchar_t> EnvironmentWith(const std::wstring& name, const std::wstring& value);

}  // namespace broomtest
