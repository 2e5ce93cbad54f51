#pragma once
// The library's handle on a node of a parsed definition file. Passed by
// value; a null handle answers empty texts and null children.
#include <pugixml.hpp>

#include <string>
#include <utility>
#include <vector>

#include "atl/CString.h"
#include "core/Export.h"

namespace xml {

class BROOM_API NodePtr {
 public:
  NodePtr() = default;
  explicit NodePtr(pugi::xml_node node) : m_node(node) {}

  explicit operator bool() const { return static_cast<bool>(m_node); }
  bool IsElement() const { return m_node.type() == pugi::node_element; }
  bool IsText() const { return m_node.type() == pugi::node_pcdata; }
  const wchar_t* Name() const { return m_node.name(); }
  // The value of the first child node, or the node's own value for a text node.
  const wchar_t* Text() const;
  NodePtr FirstChild() const { return NodePtr(m_node.first_child()); }
  NodePtr NextSibling() const { return NodePtr(m_node.next_sibling()); }
  std::vector<std::pair<std::wstring, std::wstring>> Attributes() const;
  // Exact, case-sensitive name; the first attribute counts. An empty value
  // counts as absent: false, and out is left alone.
  bool GetAttribute(const wchar_t* name, CString& out) const;
  // The same rule without a copy: the value, or null when absent or empty.
  const wchar_t* Attribute(const wchar_t* name) const {
    const wchar_t* value = m_node.attribute(name).value();
    return *value ? value : nullptr;
  }
  bool HasAttribute(const wchar_t* name) const { return static_cast<bool>(m_node.attribute(name)); }
  void SetValue(const wchar_t* value) { m_node.set_value(value); }
  // Sets the value of the first attribute of that name; false when there is none.
  bool SetAttribute(const wchar_t* name, const wchar_t* value) { return m_node.attribute(name).set_value(value); }
  bool Remove(NodePtr child) { return m_node.remove_child(child.m_node); }
  pugi::xml_node Raw() const { return m_node; }

 private:
  pugi::xml_node m_node;
};

}  // namespace xml
