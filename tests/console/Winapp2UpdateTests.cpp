// broom winapp2 update against an HTTP server of the test's own on
// 127.0.0.1: what the data folder holds after good, short, wrong, missing
// and stalled downloads.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/TestFiles.h"
#include "console/BroomRun.h"

using broomtest::Exists;
using broomtest::ReadFile;
using broomtest::RunBroomExe;
using broomtest::SBroomRun;
using broomtest::TempDir;
using broomtest::WriteFile;

namespace {

// The community's file beside the source tree; empty when it is not there.
std::wstring SharedWinapp2() {
  wchar_t source[MAX_PATH] = {};
  if (!GetEnvironmentVariableW(L"BROOM_SOURCE_DIR", source, MAX_PATH)) return std::wstring();
  std::wstring path = source;
  if (path[0] == L'/') path = L"Z:" + path;
  std::replace(path.begin(), path.end(), L'/', L'\\');
  path += L"\\..\\shared\\winapp2\\Winapp2.ini";
  if (!Exists(path)) path.insert(path.find(L"\\..\\") + 3, L"\\..");
  return Exists(path) ? path : std::wstring();
}

// The first share of a winapp2 file's entries, cut where an entry begins.
std::string FirstEntries(const std::string& text, double share) {
  size_t entries = 0;
  for (size_t at = text.find("\n["); at != std::string::npos; at = text.find("\n[", at + 1)) ++entries;
  size_t keep = static_cast<size_t>(entries * share), seen = 0;
  for (size_t at = text.find("\n["); at != std::string::npos; at = text.find("\n[", at + 1))
    if (++seen > keep) return text.substr(0, at + 1);
  return text;
}

// Serves fixed answers by path on 127.0.0.1 (a port the system picks); a
// path marked stall gets its connection held open without an answer.
class CLocalServer {
 public:
  struct SAnswer {
    int status = 200;
    std::string body;
    bool stall = false;
  };

  explicit CLocalServer(std::map<std::string, SAnswer> answers) : m_answers(std::move(answers)) {
    WSADATA data;
    m_wsa = WSAStartup(MAKEWORD(2, 2), &data) == 0;
    m_listen = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int size = sizeof address;
    if (m_listen == INVALID_SOCKET || bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_listen, 8) != 0 || getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      ADD_FAILURE() << "no server on 127.0.0.1: " << WSAGetLastError();
      return;
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { Serve(); });
  }
  ~CLocalServer() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    for (SOCKET held : m_held) closesocket(held);
    if (m_listen != INVALID_SOCKET) closesocket(m_listen);
    if (m_wsa) WSACleanup();
  }
  CLocalServer(const CLocalServer&) = delete;
  CLocalServer& operator=(const CLocalServer&) = delete;

  std::wstring Url(const std::wstring& path) const {
    return L"http://127.0.0.1:" + std::to_wstring(m_port) + path;
  }

 private:
  void Serve() {
    while (!m_stop) {
      fd_set ready;
      FD_ZERO(&ready);
      FD_SET(m_listen, &ready);
      timeval wait = {0, 100000};
      if (select(0, &ready, nullptr, nullptr, &wait) <= 0) continue;
      SOCKET client = accept(m_listen, nullptr, nullptr);
      if (client == INVALID_SOCKET) continue;
      Answer(client);
    }
  }

  void Answer(SOCKET client) {
    std::string request;
    char buffer[2048];
    while (request.find("\r\n\r\n") == std::string::npos) {
      int got = recv(client, buffer, sizeof buffer, 0);
      if (got <= 0) break;
      request.append(buffer, static_cast<size_t>(got));
    }
    size_t start = request.find(' ') + 1, end = request.find(' ', start);
    auto found = m_answers.find(start && end != std::string::npos ? request.substr(start, end - start) : "");
    SAnswer answer = found == m_answers.end() ? SAnswer{404, "<html>Not Found</html>", false} : found->second;
    if (answer.stall) {
      m_held.push_back(client);  // answered never; closed when the server goes
      return;
    }
    std::string reply = "HTTP/1.1 " + std::to_string(answer.status) + (answer.status == 200 ? " OK" : " Not Found") +
                        "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(answer.body.size()) +
                        "\r\nConnection: close\r\n\r\n" + answer.body;
    for (size_t sent = 0; sent < reply.size();) {
      int n = send(client, reply.data() + sent, static_cast<int>(std::min<size_t>(reply.size() - sent, 65536)), 0);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    shutdown(client, SD_SEND);
    while (recv(client, buffer, sizeof buffer, 0) > 0) {
    }
    closesocket(client);
  }

  std::map<std::string, SAnswer> m_answers;
  bool m_wsa = false;
  SOCKET m_listen = INVALID_SOCKET;
  unsigned short m_port = 0;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
  std::vector<SOCKET> m_held;
};

}  // namespace

TEST(Winapp2Update, OnlyACompleteWinapp2FileReplacesTheCopyInUseAndTheOneBeforeIsKept) {
  const std::wstring shared = SharedWinapp2();
  if (shared.empty()) GTEST_SKIP() << "no shared Winapp2.ini beside the source tree";
  const std::string full = ReadFile(shared);
  const std::string most = FirstEntries(full, 0.95), half = FirstEntries(full, 0.5);
  CLocalServer server({{"/full.ini", {200, full, false}},
                       {"/most.ini", {200, most, false}},
                       {"/half.ini", {200, half, false}},
                       {"/error.html", {200, "<!DOCTYPE html>\n<html><body><h1>Rate limit</h1></body></html>\n", false}},
                       {"/stall.ini", {200, "", true}}});
  TempDir root;
  const std::wstring data = root / L"appdata\\Broom", current = data + L"\\Winapp2.ini",
                     previous = current + L".previous";
  // only the stalled server is waited for briefly
  auto update = [&](const std::wstring& path) {
    const wchar_t* wait = path == L"/stall.ini" ? L"3" : L"60";
    return RunBroomExe({L"winapp2", L"update", server.Url(path), L"--timeout", wait}, root / L"appdata");
  };

  // nothing in use yet: the first good file is taken
  SBroomRun r = update(L"/most.ini");
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_EQ(most, ReadFile(current));
  EXPECT_FALSE(Exists(previous));
  r = update(L"/full.ini");
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("4,067 entries")) << r.out;
  EXPECT_EQ(full, ReadFile(current));
  EXPECT_EQ(most, ReadFile(previous));

  struct SRefused {
    const wchar_t* path;
    const char* says;
  };
  const SRefused refused[] = {
      {L"/half.ini", "fewer than nine tenths of the 4,067"},
      {L"/error.html", "not a winapp2.ini file"},
      {L"/gone.ini", "HTTP 404"},
      {L"/stall.ini", "did not answer in time"},
  };
  for (const SRefused& each : refused) {
    r = update(each.path);
    EXPECT_EQ(1u, r.code) << broomtest::Narrow(each.path);
    EXPECT_NE(std::string::npos, r.err.find(each.says)) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("nothing was changed")) << r.err;
    EXPECT_EQ(full, ReadFile(current)) << broomtest::Narrow(each.path);
    EXPECT_EQ(most, ReadFile(previous)) << broomtest::Narrow(each.path);
    EXPECT_FALSE(Exists(current + L".download"));
  }

  // the updated copy is what commands load, unless told otherwise
  r = RunBroomExe({L"list", L"--json"}, root / L"appdata");
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("\"winapp2\"")) << r.out.substr(0, 400);
  r = RunBroomExe({L"--no-winapp2", L"list", L"--json"}, root / L"appdata");
  ASSERT_EQ(0u, r.code) << r.err;
  EXPECT_EQ(std::string::npos, r.out.find("\"winapp2\""));
}

TEST(Winapp2Update, NoServerAndABadUrlChangeNothing) {
  TempDir root;
  WriteFile(root / L"appdata\\Broom\\Winapp2.ini", "[Only *]\r\nFileKey1=C:\\nowhere|*.tmp\r\n");
  // a port nobody listens on: the server's own, after it has gone
  std::wstring closed;
  { closed = CLocalServer({}).Url(L"/Winapp2.ini"); }
  SBroomRun r = RunBroomExe({L"winapp2", L"update", closed}, root / L"appdata");
  EXPECT_EQ(1u, r.code);
  EXPECT_NE(std::string::npos, r.err.find("no connection")) << r.err;
  r = RunBroomExe({L"winapp2", L"update", L"ftp://127.0.0.1/Winapp2.ini"}, root / L"appdata");
  EXPECT_EQ(2u, r.code);
  EXPECT_NE(std::string::npos, r.err.find("is not an http:// or https:// URL")) << r.err;
  EXPECT_EQ("[Only *]\r\nFileKey1=C:\\nowhere|*.tmp\r\n", ReadFile(root / L"appdata\\Broom\\Winapp2.ini"));
  EXPECT_FALSE(Exists(root / L"appdata\\Broom\\Winapp2.ini.previous"));
}
