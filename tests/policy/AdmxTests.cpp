// The Group Policy template against the code's table of policies: the same
// values, under the same key, with the same registry types and ranges, and
// every text and input field the template names present in its ADML.
#include <windows.h>

#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "common/TestFiles.h"
#include "policy/Policies.h"

namespace {

using broomtest::Narrow;

std::wstring SourceFile(const std::wstring& relative) {
  wchar_t source[MAX_PATH] = {};
  if (!GetEnvironmentVariableW(L"BROOM_SOURCE_DIR", source, MAX_PATH)) return std::wstring();
  std::wstring path = source;
  if (path[0] == L'/') path = L"Z:" + path;  // a Unix path from ctest
  std::replace(path.begin(), path.end(), L'/', L'\\');
  return path + L"\\" + relative;
}

// A registry value as the template writes it.
struct Written {
  std::wstring key;
  DWORD type = REG_NONE;
  unsigned long minimum = 0, maximum = 0;
  std::set<std::wstring> choices;
  std::wstring policyClass;
};

bool Upper(std::wstring a, std::wstring b) {
  CharUpperW(&a[0]);
  CharUpperW(&b[0]);
  return a == b;
}

// The $(string.X) or $(presentation.X) reference's X; empty when the text is none.
std::wstring Reference(const wchar_t* text, const wchar_t* table) {
  std::wstring value = text, head = L"$(" + std::wstring(table) + L".";
  if (value.compare(0, head.size(), head) != 0 || value.back() != L')') return std::wstring();
  return value.substr(head.size(), value.size() - head.size() - 1);
}

class Admx : public testing::Test {
 protected:
  void SetUp() override {
    const std::wstring admx = SourceFile(L"admx\\broom.admx"), adml = SourceFile(L"admx\\en-US\\broom.adml");
    ASSERT_TRUE(broomtest::Exists(admx)) << "ctest sets BROOM_SOURCE_DIR; " << Narrow(admx);
    pugi::xml_parse_result parsed = m_admx.load_file(admx.c_str());
    ASSERT_TRUE(parsed) << parsed.description();
    parsed = m_adml.load_file(adml.c_str());
    ASSERT_TRUE(parsed) << parsed.description();
  }

  void Add(const std::wstring& name, Written written) {
    EXPECT_EQ(0u, m_written.count(name)) << "written twice: " << Narrow(name);
    m_written[name] = std::move(written);
  }

  // Every registry value the template's policies write.
  void Collect() {
    for (pugi::xml_node policy : m_admx.child(L"policyDefinitions").child(L"policies").children(L"policy")) {
      Written base;
      base.key = policy.attribute(L"key").value();
      base.policyClass = policy.attribute(L"class").value();
      if (const wchar_t* valueName = policy.attribute(L"valueName").value(); *valueName) {
        Written flag = base;
        flag.type = REG_DWORD;
        unsigned long on = policy.child(L"enabledValue").child(L"decimal").attribute(L"value").as_uint(99);
        unsigned long off = policy.child(L"disabledValue").child(L"decimal").attribute(L"value").as_uint(99);
        flag.minimum = std::min(on, off);
        flag.maximum = std::max(on, off);
        EXPECT_TRUE(on == 1 && off == 0) << "a flag is 1 when enabled and 0 when disabled: " << Narrow(valueName);
        Add(valueName, flag);
      }
      for (pugi::xml_node element : policy.child(L"elements").children()) {
        Written value = base;
        if (*element.attribute(L"key").value()) value.key = element.attribute(L"key").value();
        std::wstring kind = element.name();
        if (kind == L"decimal") {
          EXPECT_FALSE(element.attribute(L"storeAsText").as_bool()) << Narrow(element.attribute(L"id").value());
          value.type = REG_DWORD;
          value.minimum = element.attribute(L"minValue").as_uint(0);
          value.maximum = element.attribute(L"maxValue").as_uint(9999);
        } else if (kind == L"multiText") {
          value.type = REG_MULTI_SZ;
        } else if (kind == L"enum") {
          value.type = REG_SZ;
          for (pugi::xml_node item : element.children(L"item"))
            value.choices.insert(item.child(L"value").child(L"string").text().get());
        } else {
          ADD_FAILURE() << "an element the code has no kind for: " << Narrow(kind);
        }
        Add(element.attribute(L"valueName").value(), value);
      }
    }
  }

  pugi::xml_document m_admx, m_adml;
  std::map<std::wstring, Written> m_written;
};

TEST_F(Admx, ItsPoliciesAreTheCodesWithTheSameKeysTypesAndRanges) {
  Collect();
  std::set<std::wstring> code;
  for (const SPolicyDef& def : CPolicies::Definitions()) {
    SCOPED_TRACE(Narrow(def.name));
    code.insert(def.name);
    auto found = m_written.find(def.name);
    if (found == m_written.end()) {
      ADD_FAILURE() << "not in the template";
      continue;
    }
    const Written& w = found->second;
    EXPECT_TRUE(Upper(w.key, CPolicies::kKey)) << Narrow(w.key);
    EXPECT_EQ(L"Both", w.policyClass);
    EXPECT_EQ(def.regType, w.type);
    if (def.regType == REG_DWORD) {
      EXPECT_EQ(def.minimum, w.minimum);
      EXPECT_EQ(def.maximum, w.maximum);
    }
    std::set<std::wstring> choices;
    for (const wchar_t* const* choice = def.choices; *choice; ++choice) choices.insert(*choice);
    EXPECT_EQ(choices, w.choices);
  }
  for (const auto& written : m_written) {
    EXPECT_EQ(1u, code.count(written.first)) << "only in the template: " << Narrow(written.first);
  }
}

TEST_F(Admx, EveryTextAndInputFieldItNamesIsInTheAdml) {
  pugi::xml_node resources = m_adml.child(L"policyDefinitionResources").child(L"resources");
  std::set<std::wstring> strings, presentations;
  for (pugi::xml_node s : resources.child(L"stringTable").children(L"string")) strings.insert(s.attribute(L"id").value());
  for (pugi::xml_node p : resources.child(L"presentationTable").children(L"presentation"))
    presentations.insert(p.attribute(L"id").value());

  size_t references = 0;
  for (pugi::xpath_node found : m_admx.select_nodes(L"//@*")) {
    const wchar_t* value = found.attribute().value();
    if (std::wstring name = Reference(value, L"string"); !name.empty()) {
      ++references;
      EXPECT_EQ(1u, strings.count(name)) << "no string " << Narrow(name);
    }
    if (std::wstring name = Reference(value, L"presentation"); !name.empty()) {
      EXPECT_EQ(1u, presentations.count(name)) << "no presentation " << Narrow(name);
    }
  }
  EXPECT_GT(references, 2 * CPolicies::Definitions().size() - 2);

  // Each presentation's fields are the elements of its policy, and every
  // policy explains itself with its value's name.
  for (pugi::xml_node policy : m_admx.child(L"policyDefinitions").child(L"policies").children(L"policy")) {
    SCOPED_TRACE(Narrow(policy.attribute(L"name").value()));
    std::set<std::wstring> elements, fields;
    for (pugi::xml_node element : policy.child(L"elements").children()) elements.insert(element.attribute(L"id").value());
    std::wstring presentation = Reference(policy.attribute(L"presentation").value(), L"presentation");
    pugi::xml_node shown = resources.child(L"presentationTable").find_child_by_attribute(L"presentation", L"id",
                                                                                       presentation.c_str());
    for (pugi::xml_node field : shown.children()) fields.insert(field.attribute(L"refId").value());
    EXPECT_EQ(elements, fields);
    std::wstring help = Reference(policy.attribute(L"explainText").value(), L"string");
    std::wstring text = resources.child(L"stringTable").find_child_by_attribute(L"string", L"id", help.c_str()).text().get();
    EXPECT_NE(std::wstring::npos, text.find(L"value " + std::wstring(policy.attribute(L"name").value())))
        << Narrow(text);
  }
}

}  // namespace
