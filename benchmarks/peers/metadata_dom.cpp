// libxml2: the list read into a tree, the tree decoded into records. `metadata_dom FILE`.

#include <libxml/parser.h>

#include <map>
#include <string_view>

#include "../Contestant.h"

namespace {

using Entry = std::map<std::string, std::string, std::less<>>;

std::vector<Entry> decode(xmlNode* root) {
  std::vector<Entry> entries;
  for (xmlNode* node = root->children; node != nullptr; node = node->next) {
    if (node->type != XML_ELEMENT_NODE) continue;
    Entry& entry = entries.emplace_back();
    for (xmlNode* leaf = node->children; leaf != nullptr; leaf = leaf->next) {
      if (leaf->type != XML_ELEMENT_NODE) continue;
      xmlChar* const text = xmlNodeGetContent(leaf);
      entry.emplace(reinterpret_cast<const char*>(leaf->name), reinterpret_cast<const char*>(text));
      xmlFree(text);
    }
  }
  return entries;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) bench::fail("usage: metadata_dom FILE");
  return bench::serve([&] {
    xmlDoc* const document = xmlReadFile(argv[1], nullptr, XML_PARSE_HUGE | XML_PARSE_NONET);
    if (document == nullptr) bench::fail("the list is not well formed");
    const std::vector<Entry> entries = decode(xmlDocGetRootElement(document));
    xmlFreeDoc(document);
    return entries.size();
  });
}
