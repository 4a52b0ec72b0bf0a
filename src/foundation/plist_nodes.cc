#include "foundation/plist_nodes.h"

#include <cstdlib>
#include <memory>
#include <string_view>

#include "vorlund/foundation/utf8.h"

namespace vl::plist_nodes {

std::vector<plist_t> arrayItems(plist_t array) {
  std::vector<plist_t> items;
  items.reserve(plist_array_get_size(array));
  plist_array_iter iter = nullptr;
  plist_array_new_iter(array, &iter);
  if (!iter) return items;
  for (;;) {
    plist_t item = nullptr;
    plist_array_next_item(array, iter, &item);
    if (!item) break;
    items.push_back(item);
  }
  std::free(iter);
  return items;
}

bool isMarkedUnsigned(plist_t node) {
  struct Free {
    void operator()(void* n) const { plist_free(static_cast<plist_t>(n)); }
  };
  std::unique_ptr<void, Free> copy(plist_copy(node));
  if (!copy) return false;
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(copy.get(), &xml, &length);
  if (!xml) return false;
  const std::string_view text(xml, length);
  const size_t open = text.find("<integer>");
  const bool unsignedForm =
      open != std::string_view::npos && open + 9 < text.size() && text[open + 9] != '-';
  plist_to_xml_free(xml);
  return unsignedForm;
}

namespace {

bool isText(std::string_view text, std::string* why) {
  if (text.find('\0') != std::string_view::npos) {
    *why = "a string holds a NUL character";
    return false;
  }
  if (!vl::isValidUtf8(text)) {
    *why = "a string is not valid UTF-8";
    return false;
  }
  return true;
}

}  // namespace

bool holdsOnlyText(plist_t root, size_t maxDepth, bool checkKeys, std::string* why) {
  std::vector<std::pair<plist_t, size_t>> pending{{root, 0}};
  while (!pending.empty()) {
    auto [node, depth] = pending.back();
    pending.pop_back();
    if (!node || depth > maxDepth) continue;
    switch (plist_get_node_type(node)) {
      case PLIST_STRING:
      case PLIST_KEY: {
        uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        if (text && !isText(std::string_view(text, length), why)) return false;
        break;
      }
      case PLIST_ARRAY:
        for (plist_t item : arrayItems(node)) pending.emplace_back(item, depth + 1);
        break;
      case PLIST_DICT: {
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        if (!iter) break;
        for (;;) {
          char* key = nullptr;
          plist_t item = nullptr;
          plist_dict_next_item(node, iter, checkKeys ? &key : nullptr, &item);
          if (!item) {
            std::free(key);
            break;
          }
          bool keyIsText = !key || isText(key, why);
          std::free(key);
          if (!keyIsText) {
            std::free(iter);
            return false;
          }
          pending.emplace_back(item, depth + 1);
        }
        std::free(iter);
        break;
      }
      default:
        break;
    }
  }
  return true;
}

}  // namespace vl::plist_nodes
