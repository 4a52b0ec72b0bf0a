#include "foundation/plist_nodes.h"

#include <cstdlib>
#include <memory>
#include <string_view>

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

}  // namespace vl::plist_nodes
