// XMLNode on pugixml.

#include <cstring>
#include <memory>
#include <pugixml.hpp>
#include <sstream>
#include <string>

#include "KxHostPlatform.h"
#include "host/AtomicFile.h"

// A document stays alive as long as one handle of any of its elements.
struct XMLNode::Impl {
  std::shared_ptr<pugi::xml_document> document;
  pugi::xml_node node;
};

namespace {
constexpr size_t kMaxXmlBytes = 16 << 20;
}  // namespace

XMLNode::XMLNode() : m_impl(std::make_shared<Impl>()) {}

XMLNode XMLNode::openFileHelper(const char* file, const char* tag) {
  XMLNode result;
  if (file == nullptr || tag == nullptr) return result;
  const auto content = kxhost::readWholeFile(file, kMaxXmlBytes);
  if (!content) return result;
  auto document = std::make_shared<pugi::xml_document>();
  // Document type declarations are skipped by the default mode: no entity is ever defined.
  if (!document->load_buffer(content->data(), content->size())) return result;
  const pugi::xml_node root = document->document_element();
  const bool onlyRoot = std::strcmp(root.name(), tag) == 0;
  if (onlyRoot) *result.m_impl = {document, root};
  return result;
}

XMLNode XMLNode::createXMLTopNode(const char* tag) {
  XMLNode result;
  if (tag == nullptr || *tag == '\0') return result;
  auto document = std::make_shared<pugi::xml_document>();
  *result.m_impl = {document, document->append_child(tag)};
  return result;
}

XMLNode XMLNode::addChild(const char* tag) {
  XMLNode result;
  if (isEmpty() || tag == nullptr || *tag == '\0') return result;
  *result.m_impl = {m_impl->document, m_impl->node.append_child(tag)};
  return result;
}

void XMLNode::addAttribute(const char* name, const char* value) {
  if (isEmpty() || name == nullptr || *name == '\0') return;
  pugi::xml_attribute attribute = m_impl->node.attribute(name);
  if (!attribute) attribute = m_impl->node.append_attribute(name);
  attribute.set_value(value == nullptr ? "" : value);
}

int XMLNode::nChildNode(const char* tag) const {
  int count = 0;
  if (tag == nullptr) return count;
  for (pugi::xml_node child = m_impl->node.child(tag); child; child = child.next_sibling(tag))
    ++count;
  return count;
}

XMLNode XMLNode::getChildNode(const char* tag, int index) const {
  XMLNode result;
  if (tag == nullptr || index < 0) return result;
  pugi::xml_node child = m_impl->node.child(tag);
  for (int i = 0; i < index && child; ++i) child = child.next_sibling(tag);
  if (child) *result.m_impl = {m_impl->document, child};
  return result;
}

const char* XMLNode::getAttribute(const char* name) const {
  if (name == nullptr) return nullptr;
  const pugi::xml_attribute attribute = m_impl->node.attribute(name);
  return attribute ? attribute.value() : nullptr;
}

bool XMLNode::isEmpty() const {
  return !m_impl->node;
}

int XMLNode::writeToFile(const char* file) const {
  if (isEmpty() || file == nullptr || *file == '\0') return 1;
  std::ostringstream text;
  m_impl->document->save(text, "  ", pugi::format_indent, pugi::encoding_utf8);
  return kxhost::replaceFile(file, text.str(), {}) ? 0 : 1;
}
