#include "scandefs/DefinitionChecks.h"

#include <algorithm>
#include <vector>

#include "scandefs/XmlReader.h"

namespace {

// The segments of a group path that path resolution makes groups of.
size_t Segments(const wchar_t* path) {
  size_t count = 0;
  for (bool inSegment = false; path && *path; ++path) {
    bool slash = *path == L'/';
    if (!slash && !inSegment) ++count;
    inSegment = !slash;
  }
  return count;
}

}  // namespace

const wchar_t* ParseErrorText(pugi::xml_parse_status status) {
  switch (status) {
    case pugi::status_out_of_memory: return L"there is not enough memory";
    case pugi::status_unrecognized_tag: return L"a tag is not recognised";
    case pugi::status_bad_pi: return L"a declaration or processing instruction is malformed";
    case pugi::status_bad_comment: return L"a comment is malformed";
    case pugi::status_bad_cdata: return L"a CDATA section is malformed";
    case pugi::status_bad_doctype: return L"the document type declaration is malformed";
    case pugi::status_bad_pcdata: return L"text is malformed";
    case pugi::status_bad_start_element: return L"a start tag is malformed";
    case pugi::status_bad_attribute: return L"an attribute is malformed";
    case pugi::status_bad_end_element: return L"an end tag is malformed";
    case pugi::status_end_element_mismatch: return L"an end tag does not match its start tag";
    default: return L"the parser failed";
  }
}

size_t ElementDepth(pugi::xml_node top, size_t limit, pugi::xml_node& tooDeep) {
  size_t depth = 1, deepest = 1;
  for (pugi::xml_node node = top;;) {
    if (pugi::xml_node child = node.first_child()) {
      node = child;
      ++depth;
    } else {
      while (node != top && !node.next_sibling()) {
        node = node.parent();
        --depth;
      }
      if (node == top) break;
      node = node.next_sibling();
    }
    if (node.type() == pugi::node_element && depth > deepest) {
      deepest = depth;
      if (depth > limit && !tooDeep) tooDeep = node;
    }
  }
  return deepest;
}

size_t GroupDepth(pugi::xml_node top, size_t limit, pugi::xml_node& tooDeep) {
  struct Level {
    pugi::xml_node next;  // the next child to look at
    size_t depth;         // of the group that holds the children
  };
  std::vector<Level> levels{{top.first_child(), 0}};
  size_t deepest = 0;
  while (!levels.empty()) {
    pugi::xml_node node = levels.back().next;
    if (!node) {
      levels.pop_back();
      continue;
    }
    levels.back().next = node.next_sibling();
    if (node.type() != pugi::node_element) continue;
    xml::NodePtr element(node);
    EElementType kind = XmlReader::Classify(element.Name());
    if (kind != etGroup && kind != etItem) continue;
    size_t depth = levels.back().depth;
    if (kind == etItem) {
      const wchar_t* group = element.Attribute(L"group");
      if (group) {
        size_t segments = Segments(group);
        if (!segments) continue;
        depth += segments;
      } else if (levels.size() == 1) {
        continue;  // an item directly in the file needs its group
      }
    }
    size_t segments = Segments(element.Attribute(L"name"));
    if (!segments) continue;
    depth += segments;
    deepest = std::max(deepest, depth);
    if (depth > limit && !tooDeep) tooDeep = node;
    levels.push_back(Level{node.first_child(), depth});
  }
  return deepest;
}
