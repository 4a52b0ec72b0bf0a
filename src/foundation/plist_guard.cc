#include "foundation/plist_guard.h"

#include <cctype>
#include <cstdint>
#include <unordered_map>

namespace vl::plist_guard {

namespace {

// Budgets for a binary plist once every reference is expanded into its own copy, as libplist
// builds it: a fixed allowance plus a multiple of what the file itself holds.
constexpr uint64_t kBaseNodeBudget = 2'000'000;
constexpr uint64_t kBaseByteBudget = uint64_t{64} << 20;
constexpr size_t kTrailerSize = 32;
constexpr size_t kHeaderSize = 8;

bool fail(std::string* why, std::string reason) {
  if (why) *why = std::move(reason);
  return false;
}

uint64_t saturatingAdd(uint64_t a, uint64_t b, uint64_t cap) {
  return (a > cap || b > cap - a) ? cap + 1 : a + b;
}

class BinaryChecker {
 public:
  explicit BinaryChecker(std::string_view bytes) : b_(bytes) {}

  bool run(std::string* why) {
    if (b_.size() < kHeaderSize + kTrailerSize + 1) return fail(why, "binary plist is truncated");
    size_t t = b_.size() - kTrailerSize;
    offsetSize_ = byte(t + 6);
    refSize_ = byte(t + 7);
    uint64_t count = readBigEndian(t + 8, 8);
    uint64_t top = readBigEndian(t + 16, 8);
    uint64_t tableOffset = readBigEndian(t + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) {
      return fail(why, "binary plist trailer has invalid integer sizes");
    }
    if (count == 0 || top >= count) return fail(why, "binary plist has no top object");
    if (tableOffset < kHeaderSize || tableOffset > t || count > (t - tableOffset) / offsetSize_) {
      return fail(why, "binary plist offset table is out of bounds");
    }
    count_ = count;
    tableOffset_ = tableOffset;
    nodeBudget_ = kBaseNodeBudget + 8 * count;
    byteBudget_ = kBaseByteBudget + 8 * static_cast<uint64_t>(b_.size());
    Expanded total;
    if (!visit(top, 0, &total)) return fail(why, why_);
    if (total.nodes > nodeBudget_ || total.bytes > byteBudget_) {
      return fail(why, "binary plist expands beyond the size limit");
    }
    return true;
  }

 private:
  struct Expanded {
    uint64_t nodes = 0;
    uint64_t bytes = 0;
  };
  enum class State { InProgress, Done };
  struct Memo {
    State state;
    Expanded size;
  };

  uint8_t byte(size_t at) const { return static_cast<uint8_t>(b_[at]); }
  uint64_t readBigEndian(size_t at, size_t n) const {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | byte(at + i);
    return v;
  }
  bool bad(std::string reason) {
    why_ = std::move(reason);
    return false;
  }
  // Bytes [pos, pos + n) lie inside the object area.
  bool fits(uint64_t pos, uint64_t n) const { return pos <= tableOffset_ && n <= tableOffset_ - pos; }

  bool readLength(uint64_t* pos, uint8_t info, uint64_t* length) {
    if (info != 0xF) {
      *length = info;
      return true;
    }
    if (!fits(*pos, 1)) return bad("binary plist length is truncated");
    uint8_t marker = byte(*pos);
    if ((marker & 0xF0) != 0x10 || (marker & 0x0F) > 3) {
      return bad("binary plist length is not an integer");
    }
    uint64_t n = uint64_t{1} << (marker & 0x0F);
    if (!fits(*pos + 1, n)) return bad("binary plist length is truncated");
    *length = readBigEndian(*pos + 1, n);
    *pos += 1 + n;
    return true;
  }

  bool visit(uint64_t index, size_t depth, Expanded* out) {
    if (depth > kMaxDepth) return bad("binary plist is nested too deeply");
    if (auto it = memo_.find(index); it != memo_.end()) {
      if (it->second.state == State::InProgress) return bad("binary plist object refers to itself");
      *out = it->second.size;
      return true;
    }
    uint64_t offset = readBigEndian(tableOffset_ + index * offsetSize_, offsetSize_);
    if (offset < kHeaderSize || offset >= tableOffset_) {
      return bad("binary plist object offset is out of bounds");
    }
    uint8_t marker = byte(offset);
    uint8_t type = marker >> 4;
    uint8_t info = marker & 0x0F;
    uint64_t pos = offset + 1;
    Expanded size{1, 0};
    uint64_t payload = 0;
    uint64_t refs = 0;
    switch (type) {
      case 0x0:
        break;
      case 0x1:  // integer
      case 0x2:  // real
        if (info > 4) return bad("binary plist number has an invalid size");
        payload = uint64_t{1} << info;
        break;
      case 0x3:  // date
        payload = 8;
        break;
      case 0x4:  // data
      case 0x5:  // ASCII string
      case 0x7:  // UTF-8 string
        if (!readLength(&pos, info, &payload)) return false;
        break;
      case 0x6:  // UTF-16 string
        if (!readLength(&pos, info, &payload)) return false;
        if (payload > tableOffset_) return bad("binary plist string is out of bounds");
        payload *= 2;
        break;
      case 0x8:  // UID
        payload = uint64_t{info} + 1;
        break;
      case 0xA:  // array
      case 0xB:  // ordered set
      case 0xC:  // set
        if (!readLength(&pos, info, &refs)) return false;
        break;
      case 0xD:  // dictionary
        if (!readLength(&pos, info, &refs)) return false;
        if (refs > tableOffset_) return bad("binary plist dictionary is out of bounds");
        refs *= 2;
        break;
      default:
        return bad("binary plist holds an object of unknown type");
    }
    if (!fits(pos, payload)) return bad("binary plist object is out of bounds");
    size.bytes = payload;
    if (refs > 0) {
      if (refs > tableOffset_ / refSize_ || !fits(pos, refs * refSize_)) {
        return bad("binary plist container is out of bounds");
      }
      memo_[index] = Memo{State::InProgress, {}};
      for (uint64_t i = 0; i < refs; ++i) {
        uint64_t child = readBigEndian(pos + i * refSize_, refSize_);
        if (child >= count_) return bad("binary plist reference is out of bounds");
        Expanded childSize;
        if (!visit(child, depth + 1, &childSize)) return false;
        size.nodes = saturatingAdd(size.nodes, childSize.nodes, nodeBudget_);
        size.bytes = saturatingAdd(size.bytes, childSize.bytes, byteBudget_);
        if (size.nodes > nodeBudget_ || size.bytes > byteBudget_) {
          return bad("binary plist expands beyond the size limit");
        }
      }
    }
    memo_[index] = Memo{State::Done, size};
    *out = size;
    return true;
  }

  std::string_view b_;
  uint8_t offsetSize_ = 0;
  uint8_t refSize_ = 0;
  uint64_t count_ = 0;
  uint64_t tableOffset_ = 0;
  uint64_t nodeBudget_ = 0;
  uint64_t byteBudget_ = 0;
  std::unordered_map<uint64_t, Memo> memo_;
  std::string why_;
};

bool startsWithWord(std::string_view text, size_t at, std::string_view word) {
  if (text.substr(at, word.size()) != word) return false;
  size_t end = at + word.size();
  return end >= text.size() || !(std::isalnum(static_cast<unsigned char>(text[end])));
}

// Nesting depth of <array> and <dict> elements. Anything that looks like an opening tag counts, so
// the estimate never falls short of what the parser sees.
bool checkXml(std::string_view text, std::string* why) {
  size_t depth = 0;
  for (size_t i = text.find('<'); i != std::string_view::npos; i = text.find('<', i + 1)) {
    if (i + 1 >= text.size()) break;
    char next = text[i + 1];
    if (next == '/') {
      if ((startsWithWord(text, i + 2, "array") || startsWithWord(text, i + 2, "dict")) &&
          depth > 0) {
        --depth;
      }
      continue;
    }
    if (!startsWithWord(text, i + 1, "array") && !startsWithWord(text, i + 1, "dict")) continue;
    size_t close = text.find('>', i + 1);
    if (close != std::string_view::npos && text[close - 1] == '/') continue;
    if (++depth > kMaxDepth) return fail(why, "property list is nested too deeply");
  }
  return true;
}

}  // namespace

bool check(std::string_view bytes, std::string* why) {
  if (bytes.substr(0, 6) == "bplist") return BinaryChecker(bytes).run(why);
  return checkXml(bytes, why);
}

}  // namespace vl::plist_guard
