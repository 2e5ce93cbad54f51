#pragma once
// One HTTP or HTTPS GET through WinHTTP (the system's proxy settings apply),
// its body written to a file.
#include <windows.h>

#include <string>

namespace host {

struct SDownload {
  bool ok = false;
  DWORD status = 0;             // the HTTP status, when a response came
  unsigned long long bytes = 0;  // written to the file
  std::wstring error;           // what went wrong, in words, when !ok
};

// Writes the body of a 200 response to file (created or replaced). Every
// wait (name look-up, connection, each read) ends after timeoutMs; a body
// over maxBytes fails. When it fails the file may hold part of the body.
SDownload HttpGetToFile(const std::wstring& url, const std::wstring& file, DWORD timeoutMs,
                        unsigned long long maxBytes);

}  // namespace host
