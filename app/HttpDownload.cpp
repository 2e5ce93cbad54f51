#include "app/HttpDownload.h"

#include <winhttp.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "app/Text.h"
#include "core/Handles.h"

#ifndef BROOM_VERSION
#define BROOM_VERSION "0.0.0"
#endif

namespace host {

namespace {

std::wstring WinHttpMessage(DWORD error) {
  switch (error) {
    case ERROR_WINHTTP_TIMEOUT:
    case WSAETIMEDOUT:  // Wine's WinHTTP passes the socket's own timeout through
      return L"the server did not answer in time";
    case ERROR_WINHTTP_NAME_NOT_RESOLVED: return L"the server's name could not be found (no connection?)";
    case ERROR_WINHTTP_CANNOT_CONNECT: return L"no connection to the server could be made";
    case ERROR_WINHTTP_CONNECTION_ERROR: return L"the connection to the server was broken";
    case ERROR_WINHTTP_INVALID_URL:
    case ERROR_WINHTTP_UNRECOGNIZED_SCHEME: return L"the address is not an http:// or https:// URL";
    case ERROR_WINHTTP_SECURE_FAILURE: return L"the server's certificate could not be trusted";
    case ERROR_WINHTTP_INVALID_SERVER_RESPONSE: return L"the server's answer was not HTTP";
    case ERROR_WINHTTP_REDIRECT_FAILED: return L"the server redirected to an address that could not be followed";
    default: break;
  }
  return L"WinHTTP error " + std::to_wstring(error);
}

SDownload Failed(DWORD error, SDownload result = SDownload()) {
  result.ok = false;
  result.error = WinHttpMessage(error);
  return result;
}

// What the download's thread and the one waiting for it share. Wine's
// WinHTTP does not end a wait for a stalled server by its timeouts, so the
// waiting thread watches the progress and closes the request itself.
struct SShared {
  std::wstring url, file;
  DWORD timeoutMs = 0;
  unsigned long long maxBytes = 0;
  std::atomic<DWORD> lastProgress{0};
  std::mutex lock;
  std::condition_variable doneSignal;
  bool done = false;
  bool abandoned = false;
  HINTERNET request = nullptr;  // while it is open, under lock
  SDownload result;
};

void Progress(SShared& shared) { shared.lastProgress = GetTickCount(); }

SDownload Get(SShared& shared) {
  const std::wstring& url = shared.url;
  const std::wstring& file = shared.file;
  const DWORD timeoutMs = shared.timeoutMs;
  const unsigned long long maxBytes = shared.maxBytes;
  URL_COMPONENTS parts = {};
  parts.dwStructSize = sizeof parts;
  parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = parts.dwSchemeLength = DWORD(-1);
  if (!WinHttpCrackUrl(url.c_str(), static_cast<DWORD>(url.size()), 0, &parts) ||
      (parts.nScheme != INTERNET_SCHEME_HTTP && parts.nScheme != INTERNET_SCHEME_HTTPS) || parts.dwHostNameLength == 0)
    return Failed(ERROR_WINHTTP_INVALID_URL);
  const std::wstring hostName(parts.lpszHostName, parts.dwHostNameLength);
  std::wstring path(parts.lpszUrlPath ? std::wstring(parts.lpszUrlPath, parts.dwUrlPathLength) : std::wstring());
  if (parts.lpszExtraInfo) path.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
  if (path.empty()) path = L"/";

  broom::unique_winhttp session(WinHttpOpen(L"Broom/" BROOM_VERSION, WINHTTP_ACCESS_TYPE_DEFAULT_PROXY,
                                            WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0));
  if (!session) return Failed(GetLastError());
  const int wait = static_cast<int>(timeoutMs);
  WinHttpSetTimeouts(session.get(), wait, wait, wait, wait);
  broom::unique_winhttp connection(WinHttpConnect(session.get(), hostName.c_str(), parts.nPort, 0));
  if (!connection) return Failed(GetLastError());
  broom::unique_winhttp request(WinHttpOpenRequest(connection.get(), L"GET", path.c_str(), nullptr,
                                                   WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                                   parts.nScheme == INTERNET_SCHEME_HTTPS ? WINHTTP_FLAG_SECURE : 0));
  if (!request) return Failed(GetLastError());
  {
    std::lock_guard<std::mutex> hold(shared.lock);
    if (shared.abandoned) return Failed(ERROR_WINHTTP_TIMEOUT);
    shared.request = request.get();
  }
  // the waiting thread may have closed the request already
  struct SForget {
    SShared& shared;
    broom::unique_winhttp& request;
    ~SForget() {
      std::lock_guard<std::mutex> hold(shared.lock);
      if (shared.abandoned && !shared.request) request.release();
      shared.request = nullptr;
    }
  } forget{shared, request};
  // the wait for the response's headers has a limit of its own
  DWORD headers = timeoutMs;
  WinHttpSetOption(request.get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &headers, sizeof headers);
  if (!WinHttpSendRequest(request.get(), WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0, 0, 0) ||
      !WinHttpReceiveResponse(request.get(), nullptr))
    return Failed(GetLastError());

  SDownload result;
  DWORD size = sizeof result.status;
  if (!WinHttpQueryHeaders(request.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                           WINHTTP_HEADER_NAME_BY_INDEX, &result.status, &size, WINHTTP_NO_HEADER_INDEX))
    return Failed(GetLastError());
  if (result.status != 200) {
    result.error = L"the server answered HTTP " + std::to_wstring(result.status);
    return result;
  }

  broom::unique_hfile out(CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                      nullptr));
  if (!out) {
    result.error = L"cannot write " + Quoted(file) + L" (" + SystemMessage(GetLastError()) + L")";
    return result;
  }
  std::vector<char> buffer(65536);
  for (;;) {
    DWORD got = 0;
    if (!WinHttpReadData(request.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &got))
      return Failed(GetLastError(), result);
    if (got == 0) break;
    Progress(shared);
    result.bytes += got;
    if (result.bytes > maxBytes) {
      result.error = L"the file is larger than " + FormatSize(maxBytes) + L", more than any winapp2.ini";
      return result;
    }
    DWORD written = 0;
    if (!::WriteFile(out.get(), buffer.data(), got, &written, nullptr) || written != got) {
      result.error = L"cannot write " + Quoted(file) + L" (" + SystemMessage(GetLastError()) + L")";
      return result;
    }
  }
  if (!FlushFileBuffers(out.get())) {
    result.error = L"cannot write " + Quoted(file) + L" (" + SystemMessage(GetLastError()) + L")";
    return result;
  }
  result.ok = true;
  return result;
}

}  // namespace

SDownload HttpGetToFile(const std::wstring& url, const std::wstring& file, DWORD timeoutMs,
                        unsigned long long maxBytes) {
  auto shared = std::make_shared<SShared>();
  shared->url = url;
  shared->file = file;
  shared->timeoutMs = timeoutMs;
  shared->maxBytes = maxBytes;
  Progress(*shared);
  std::thread worker([shared] {
    SDownload result = Get(*shared);
    std::lock_guard<std::mutex> hold(shared->lock);
    shared->result = std::move(result);
    shared->done = true;
    shared->doneSignal.notify_all();
  });
  std::unique_lock<std::mutex> hold(shared->lock);
  while (!shared->done) {
    shared->doneSignal.wait_for(hold, std::chrono::milliseconds(200));
    if (shared->done || GetTickCount() - shared->lastProgress.load() <= timeoutMs) continue;
    // stalled: closing the request ends its wait; a thread that still does
    // not end is left behind, and its result is not waited for
    shared->abandoned = true;
    if (shared->request) WinHttpCloseHandle(shared->request);
    shared->request = nullptr;
    shared->doneSignal.wait_for(hold, std::chrono::seconds(2), [&] { return shared->done; });
    break;
  }
  if (!shared->done) {
    hold.unlock();
    worker.detach();
    return Failed(ERROR_WINHTTP_TIMEOUT);
  }
  hold.unlock();
  worker.join();
  return shared->abandoned ? Failed(ERROR_WINHTTP_TIMEOUT) : shared->result;
}

}  // namespace host
