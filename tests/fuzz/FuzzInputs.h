#pragma once
// The inputs of a fuzz run: the regression cases kept in the repository,
// then definition files generated from a small grammar or taken from the
// bundled definitions and mutated, and winapp2.ini files (Winapp2Inputs.h).
// Input i of a seed is always the same.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/Winapp2Inputs.h"

namespace fuzz {

class Rng {
 public:
  explicit Rng(uint64_t seed) : m_state(seed) {}
  uint64_t Next();
  size_t Below(size_t n) { return n ? static_cast<size_t>(Next() % n) : 0; }
  bool Chance(unsigned percent) { return Below(100) < percent; }
  // Spread evenly over the orders of magnitude between from and to.
  size_t LogSize(size_t from, size_t to);
  template <class T, size_t N>
  const T& Pick(const T (&items)[N]) { return items[Below(N)]; }

 private:
  uint64_t m_state;
};

struct Input {
  std::string bytes;
  std::wstring extension = L"xml";  // "da0", "dat0" and "dat2" pass through the hook
  int hook = 0;                     // 0 passes the bytes, 1 rejects them, 2 drops the last few
  bool localizer = false;
  bool winapp2 = false;  // loaded by CWinapp2Loader, not as a definition folder
  std::string what;  // how it was made, for the report
};

// A kept case: "{N*text}" repeats text N times (nesting allowed), "\xHH"
// is a byte, "\n", "\r", "\\", "\{" and "\}" as usual. A case whose name
// starts with "localized" is loaded with the localizer, one whose name
// starts with "winapp2" as a winapp2.ini file.
struct Case {
  std::string name;
  std::string pattern;
};

// One case per line, "name pattern"; blank lines and lines starting with
// '#' are skipped. Throws std::runtime_error naming a malformed line.
std::vector<Case> ReadCases(const std::wstring& path);
std::string Expand(const std::string& pattern);

class Inputs {
 public:
  // winapp2: the shared Winapp2.ini, empty when there is none.
  Inputs(uint64_t seed, std::vector<std::string> seeds, std::vector<Case> cases, std::string winapp2)
      : m_seed(seed), m_seeds(std::move(seeds)), m_cases(std::move(cases)), m_winapp2(std::move(winapp2)) {}
  size_t CaseCount() const { return m_cases.size(); }
  bool HasSharedWinapp2() const { return m_winapp2.HasShared(); }
  // The cases first, then generated inputs.
  Input Make(uint64_t index) const;

 private:
  uint64_t m_seed;
  std::vector<std::string> m_seeds;
  std::vector<Case> m_cases;
  Winapp2Source m_winapp2;
};

}  // namespace fuzz
