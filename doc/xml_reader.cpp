#include "doc/xml_reader.h"

#include <cstring>

namespace webs {

namespace {
constexpr char kXMLDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
constexpr size_t kXMLDeclarationSize = sizeof(kXMLDeclaration) - 1;
static_assert(kXMLDeclarationSize == 38, "the declaration is 38 bytes");
}  // namespace

XMLReader::XMLReader() : current(this), initialised(false) {}

XMLReader::~XMLReader() = default;

int XMLReader::streamIn(const char* data, int size, int isLast) { return 0; }

void XMLReader::initialize() { initialised = true; }

// Deliberately keeps the tree: the reader is cleared before every transfer
// and its users read the previous tree across transfers.
void XMLReader::clear() {}

void XMLReader::readyRead() {}

void XMLReader::readNodeBegin(const char* name, bool flag) {
  // Unbalanced events (a begin after the root was closed) build nothing
  // rather than touching a missing node.
  if (!current || !name) return;
  current = current->createSubEntry(name, std::strlen(name));
}

void XMLReader::readNodeEnd(const char* name) {
  // The name is not compared with the open element's: the event source has
  // checked well-formedness already.
  if (current) current = current->getParent();
}

void XMLReader::readNodeValue(const char* text, bool flag) {
  if (!text || !current) return;
  // Appending in place gives the concatenation of the pieces without
  // copying the value again for each piece: an XML parser reports long text
  // in many pieces (one per line and per buffer boundary).
  current->appendLeafValue(text, std::strlen(text));
}

void XMLReader::readEntryAttri(const char* name, const char* value, bool flag) {
  if (!name || !current) return;
  current->createSubAttribute(name, value ? value : "");
}

void XMLReader::readEntryAttris(const char** attrs) {
  if (!attrs) return;
  for (size_t i = 0; attrs[i]; i += 2) readEntryAttri(attrs[i], attrs[i + 1], false);
}

std::vector<unsigned char>* XMLReader::getRawData(const std::string& text) {
  rawData.clear();
  rawData.resize(text.size() + kXMLDeclarationSize);
  std::memcpy(rawData.data(), text.data(), text.size());
  // The declaration goes after the text; peers expect this order.
  std::memcpy(rawData.data() + text.size(), kXMLDeclaration, kXMLDeclarationSize);
  return &rawData;
}

void XMLReader::startElem(void* reader, const char* name, const char** attrs) {
  XMLReader* self = static_cast<XMLReader*>(reader);
  self->readNodeBegin(name, false);
  self->readEntryAttris(attrs);
}

void XMLReader::endElem(void* reader, const char* name) {
  static_cast<XMLReader*>(reader)->readNodeEnd(name);
}

void XMLReader::data(void* reader, const char* s, int len) {
  if (!s) return;
  std::string text(s, len > 0 ? static_cast<size_t>(len) : 0);
  static_cast<XMLReader*>(reader)->readNodeValue(text.c_str(), false);
}

}  // namespace webs
