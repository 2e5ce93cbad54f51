#pragma once
// The winapp2.ini files of a fuzz run: slices and mutated entries of the
// shared Winapp2.ini, entries from a small grammar, huge lines and paths,
// many keys and entries, and broken encodings.
#include <string>
#include <vector>

namespace fuzz {

class Rng;

class Winapp2Source {
 public:
  // shared: the bytes of the shared Winapp2.ini; empty when there is none,
  // and then the families made from it are made from the grammar instead.
  explicit Winapp2Source(std::string shared);
  bool HasShared() const { return !m_shared.empty(); }
  std::string Make(Rng& r, std::string& what) const;

 private:
  // count whole entries of the shared file from a random one
  std::string Entries(Rng& r, size_t count) const;
  std::string Slice(Rng& r, std::string& what) const;
  std::string RealMutated(Rng& r, std::string& what) const;
  std::string Huge(Rng& r, std::string& what) const;
  std::string Many(Rng& r, std::string& what) const;
  std::string Encoded(Rng& r, std::string& what) const;

  std::string m_shared;
  std::vector<size_t> m_entries;  // where each line opening an entry starts
};

}  // namespace fuzz
