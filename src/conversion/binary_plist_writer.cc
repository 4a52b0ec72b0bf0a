#include "conversion/binary_plist_writer.h"

#include "foundation/plist_nodes.h"

#include <cstdlib>
#include <deque>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vl::conversion {

namespace {

constexpr size_t kMaxDepth = 512;

// Bytes needed for an unsigned value: 1, 2, 4 or 8.
uint8_t widthOf(uint64_t v) {
  if (v <= 0xFF) return 1;
  if (v <= 0xFFFF) return 2;
  if (v <= 0xFFFFFFFF) return 4;
  return 8;
}

uint8_t log2Width(uint8_t width) { return width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3; }

void putBigEndian(std::string& out, uint64_t v, size_t width) {
  for (size_t i = width; i-- > 0;) out += static_cast<char>((v >> (8 * i)) & 0xFF);
}


class Writer {
 public:
  std::optional<std::string> run(plist_t root) {
    if (!flatten(root, 0)) return std::nullopt;
    refWidth_ = widthOf(objects_.size());
    std::string out = "bplist00";
    std::vector<uint64_t> offsets;
    offsets.reserve(objects_.size());
    for (const Object& o : objects_) {
      offsets.push_back(out.size());
      if (!write(out, o)) return std::nullopt;
    }
    uint64_t tableOffset = out.size();
    uint8_t offsetWidth = widthOf(tableOffset);
    for (uint64_t offset : offsets) putBigEndian(out, offset, offsetWidth);
    out.append(6, '\0');
    out += static_cast<char>(offsetWidth);
    out += static_cast<char>(refWidth_);
    putBigEndian(out, objects_.size(), 8);
    putBigEndian(out, 0, 8);
    putBigEndian(out, tableOffset, 8);
    return out;
  }

 private:
  struct Object {
    plist_t node = nullptr;           // nullptr for a dictionary key
    std::string_view key;             // the key text when node is nullptr
    std::vector<uint64_t> refs;       // children: array items, or dictionary keys then values
  };

  uint64_t stringObject(std::string_view text, plist_t node) {
    auto [it, fresh] = strings_.try_emplace(text, objects_.size());
    if (fresh) objects_.push_back(Object{node, text, {}});
    return it->second;
  }

  // Assigns object numbers depth first, the root first.
  bool flatten(plist_t node, size_t depth) {
    if (depth > kMaxDepth) return false;
    plist_type type = plist_get_node_type(node);
    if (type == PLIST_STRING) {
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      lastIndex_ = stringObject(std::string_view(text ? text : "", text ? length : 0), node);
      return true;
    }
    uint64_t index = objects_.size();
    objects_.push_back(Object{node, {}, {}});
    if (type == PLIST_ARRAY) {
      for (plist_t child : plist_nodes::arrayItems(node)) {
        if (!flatten(child, depth + 1)) return false;
        objects_[index].refs.push_back(lastIndex_);
      }
    } else if (type == PLIST_DICT) {
      std::vector<uint64_t> keys;
      std::vector<uint64_t> values;
      plist_dict_iter iter = nullptr;
      plist_dict_new_iter(node, &iter);
      if (!iter) return false;
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, iter, &key, &value);
        if (!value) {
          std::free(key);
          break;
        }
        keyTexts_.emplace_back(key ? key : "");
        std::free(key);
        keys.push_back(stringObject(keyTexts_.back(), nullptr));
        if (!flatten(value, depth + 1)) {
          std::free(iter);
          return false;
        }
        values.push_back(lastIndex_);
      }
      std::free(iter);
      objects_[index].refs = std::move(keys);
      objects_[index].refs.insert(objects_[index].refs.end(), values.begin(), values.end());
    }
    lastIndex_ = index;
    return true;
  }

  void putMarker(std::string& out, uint8_t type, uint64_t length) {
    if (length < 15) {
      out += static_cast<char>((type << 4) | length);
      return;
    }
    out += static_cast<char>((type << 4) | 0x0F);
    uint8_t width = widthOf(length);
    out += static_cast<char>(0x10 | log2Width(width));
    putBigEndian(out, length, width);
  }

  void putString(std::string& out, std::string_view text) {
    bool ascii = true;
    for (char c : text) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
      putMarker(out, 0x5, text.size());
      out.append(text);
      return;
    }
    std::vector<uint16_t> units;
    units.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
      auto c = static_cast<unsigned char>(text[i]);
      uint32_t cp = c;
      size_t extra = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
      if (extra > 0) cp = c & (0x3F >> extra);
      for (size_t k = 1; k <= extra && i + k < text.size(); ++k) {
        cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
      }
      i += extra + 1;
      if (cp >= 0x10000) {
        cp -= 0x10000;
        units.push_back(static_cast<uint16_t>(0xD800 | (cp >> 10)));
        units.push_back(static_cast<uint16_t>(0xDC00 | (cp & 0x3FF)));
      } else {
        units.push_back(static_cast<uint16_t>(cp));
      }
    }
    putMarker(out, 0x6, units.size());
    for (uint16_t u : units) putBigEndian(out, u, 2);
  }

  bool write(std::string& out, const Object& o) {
    if (!o.node) {
      putString(out, o.key);
      return true;
    }
    switch (plist_get_node_type(o.node)) {
      case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(o.node, &b);
        out += static_cast<char>(b ? 0x09 : 0x08);
        return true;
      }
      case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(o.node, &v);
        if ((v >> 63) != 0 && plist_nodes::isMarkedUnsigned(o.node)) {
          out += '\x14';
          putBigEndian(out, 0, 8);
          putBigEndian(out, v, 8);
        } else if ((v >> 63) != 0) {
          out += '\x13';  // a negative int64
          putBigEndian(out, v, 8);
        } else {
          uint8_t width = widthOf(v);
          out += static_cast<char>(0x10 | log2Width(width));
          putBigEndian(out, v, width);
        }
        return true;
      }
      case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(o.node, &d);
        uint64_t bits;
        std::memcpy(&bits, &d, sizeof bits);
        out += '\x23';
        putBigEndian(out, bits, 8);
        return true;
      }
      case PLIST_DATE: {
        int32_t sec = 0;
        int32_t usec = 0;
        plist_get_date_val(o.node, &sec, &usec);
        double d = sec + usec / 1e6;
        uint64_t bits;
        std::memcpy(&bits, &d, sizeof bits);
        out += '\x33';
        putBigEndian(out, bits, 8);
        return true;
      }
      case PLIST_DATA: {
        uint64_t length = 0;
        const char* bytes = plist_get_data_ptr(o.node, &length);
        putMarker(out, 0x4, length);
        if (length > 0) out.append(bytes, length);
        return true;
      }
      case PLIST_STRING: {
        uint64_t length = 0;
        const char* text = plist_get_string_ptr(o.node, &length);
        putString(out, std::string_view(text ? text : "", text ? length : 0));
        return true;
      }
      case PLIST_UID: {
        uint64_t v = 0;
        plist_get_uid_val(o.node, &v);
        uint8_t width = widthOf(v);
        out += static_cast<char>(0x80 | (width - 1));
        putBigEndian(out, v, width);
        return true;
      }
      case PLIST_ARRAY:
        putMarker(out, 0xA, o.refs.size());
        for (uint64_t ref : o.refs) putBigEndian(out, ref, refWidth_);
        return true;
      case PLIST_DICT:
        putMarker(out, 0xD, o.refs.size() / 2);
        for (uint64_t ref : o.refs) putBigEndian(out, ref, refWidth_);
        return true;
      default:
        return false;
    }
  }

  std::vector<Object> objects_;
  std::unordered_map<std::string_view, uint64_t> strings_;
  // Dictionary key texts, kept alive for the views in objects_ and strings_.
  std::deque<std::string> keyTexts_;
  uint64_t lastIndex_ = 0;
  uint8_t refWidth_ = 1;
};

}  // namespace

std::optional<std::string> writeBinaryPlist(plist_t root) {
  if (!root) return std::nullopt;
  return Writer().run(root);
}


}  // namespace vl::conversion
