#include "scandefs/XmlNode.h"

namespace xml {

const wchar_t* NodePtr::Text() const {
  if (m_node.type() == pugi::node_pcdata || m_node.type() == pugi::node_cdata) return m_node.value();
  return m_node.first_child().value();
}

std::vector<std::pair<std::wstring, std::wstring>> NodePtr::Attributes() const {
  std::vector<std::pair<std::wstring, std::wstring>> out;
  for (pugi::xml_attribute a = m_node.first_attribute(); a; a = a.next_attribute())
    out.emplace_back(a.name(), a.value());
  return out;
}

bool NodePtr::GetAttribute(const wchar_t* name, CString& out) const {
  pugi::xml_attribute a = m_node.attribute(name);
  if (!a || !*a.value()) return false;
  out = a.value();
  return true;
}

}  // namespace xml
