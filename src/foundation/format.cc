#include "vorlund/foundation/format.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>

#include "vorlund/foundation/error.h"

namespace vl {

FormatArg::FormatArg(const Value& v) : kind_(Kind::Object), text_(v.description()) {
  // A number passed as a value prints through numeric conversions like a plain number.
  if (const Number* n = v.asNumber()) {
    if (n->isFloatingPoint()) {
      kind_ = Kind::Floating;
      floating_ = n->doubleValue();
    } else if (n->isUnsigned()) {
      kind_ = Kind::Unsigned;
      unsigned_ = n->uint64Value();
    } else {
      kind_ = Kind::Signed;
      signed_ = n->int64Value();
    }
  }
}

FormatArg::FormatArg(const Error& e) : kind_(Kind::Object), text_(e.description()) {}

FormatArg::FormatArg(const Record& r) : kind_(Kind::Object), text_(r.description()) {}

namespace {

struct Conversion {
  std::string flags;
  std::string width;
  std::string precision;  // including the leading '.', or empty
  std::string length;
  char conversion = 0;
};

std::string printfString(const std::string& pattern, auto value) {
  char small[128];
  int n = std::snprintf(small, sizeof small, pattern.c_str(), value);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), pattern.c_str(), value);
  big.resize(static_cast<size_t>(n));
  return big;
}

// The text of a string conversion with width and precision applied.
std::string padded(const Conversion& s, const std::string& text) {
  return printfString("%" + s.flags + s.width + s.precision + "s", text.c_str());
}

int64_t asSigned(const FormatArg& a) {
  switch (a.kind()) {
    case FormatArg::Kind::Signed:
      return a.signedValue();
    case FormatArg::Kind::Unsigned:
      return static_cast<int64_t>(a.unsignedValue());
    case FormatArg::Kind::Floating: {
      double d = a.floatingValue();
      if (std::isnan(d)) return 0;
      if (d >= 9.2e18) return std::numeric_limits<int64_t>::max();
      if (d <= -9.2e18) return std::numeric_limits<int64_t>::min();
      return static_cast<int64_t>(d);
    }
    case FormatArg::Kind::Pointer:
      return static_cast<int64_t>(reinterpret_cast<uintptr_t>(a.pointerValue()));
    default:
      return a.signedValue();
  }
}

double asDouble(const FormatArg& a) {
  switch (a.kind()) {
    case FormatArg::Kind::Signed:
      return static_cast<double>(a.signedValue());
    case FormatArg::Kind::Unsigned:
      return static_cast<double>(a.unsignedValue());
    default:
      return a.floatingValue();
  }
}

bool isNumeric(const FormatArg& a) {
  return a.kind() == FormatArg::Kind::Signed || a.kind() == FormatArg::Kind::Unsigned ||
         a.kind() == FormatArg::Kind::Floating;
}

// The text an argument shows through %@ or %s.
std::string textOf(const FormatArg& a) {
  switch (a.kind()) {
    case FormatArg::Kind::Signed:
      return std::to_string(a.signedValue());
    case FormatArg::Kind::Unsigned:
      return std::to_string(a.unsignedValue());
    case FormatArg::Kind::Floating:
      return Number(a.floatingValue()).description();
    case FormatArg::Kind::Pointer:
      return printfString("0x%" PRIxPTR, reinterpret_cast<uintptr_t>(a.pointerValue()));
    default:
      return a.text();
  }
}

std::string convert(const Conversion& s, const FormatArg& a) {
  switch (s.conversion) {
    case '@':
      return textOf(a);
    case 's':
      return padded(s, textOf(a));
    case 'd':
    case 'i':
      if (!isNumeric(a) && a.kind() != FormatArg::Kind::Pointer) return padded(s, textOf(a));
      return printfString("%" + s.flags + s.width + s.precision + "lld",
                          static_cast<long long>(asSigned(a)));
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
      if (!isNumeric(a) && a.kind() != FormatArg::Kind::Pointer) return padded(s, textOf(a));
      uint64_t v = a.kind() == FormatArg::Kind::Unsigned ? a.unsignedValue()
                                                         : static_cast<uint64_t>(asSigned(a));
      // Without a long length a negative int prints as the 32-bit unsigned it would be in C.
      if (s.length.empty() || s.length == "h" || s.length == "hh") {
        if (a.kind() == FormatArg::Kind::Signed && a.signedValue() < 0 &&
            a.signedValue() >= std::numeric_limits<int32_t>::min()) {
          v = static_cast<uint32_t>(a.signedValue());
        }
      }
      return printfString("%" + s.flags + s.width + s.precision + "ll" + s.conversion,
                          static_cast<unsigned long long>(v));
    }
    case 'c':
      if (!isNumeric(a)) return padded(s, textOf(a));
      return printfString("%" + s.flags + s.width + "c", static_cast<int>(asSigned(a)));
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (!isNumeric(a)) return padded(s, textOf(a));
      return printfString("%" + s.flags + s.width + s.precision + s.conversion, asDouble(a));
    case 'p':
      if (a.kind() == FormatArg::Kind::Pointer) {
        return padded(s,
                      printfString("0x%" PRIxPTR, reinterpret_cast<uintptr_t>(a.pointerValue())));
      }
      return padded(s, textOf(a));
    default:
      return {};
  }
}

bool isLengthChar(char c) {
  return c == 'h' || c == 'l' || c == 'z' || c == 'j' || c == 't' || c == 'L' || c == 'q';
}

}  // namespace

std::string formatArgs(std::string_view fmt, const std::vector<FormatArg>& args) {
  std::string out;
  out.reserve(fmt.size() + 32);
  size_t next = 0;
  size_t i = 0;
  while (i < fmt.size()) {
    char c = fmt[i];
    if (c != '%') {
      out += c;
      ++i;
      continue;
    }
    size_t start = i++;
    if (i < fmt.size() && fmt[i] == '%') {
      out += '%';
      ++i;
      continue;
    }
    Conversion s;
    while (i < fmt.size() && std::string_view("-+ #0'").find(fmt[i]) != std::string_view::npos) {
      if (fmt[i] != '\'') s.flags += fmt[i];
      ++i;
    }
    while (i < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[i]))) s.width += fmt[i++];
    if (i < fmt.size() && fmt[i] == '.') {
      s.precision.push_back('.');
      ++i;
      while (i < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[i])))
        s.precision += fmt[i++];
    }
    while (i < fmt.size() && isLengthChar(fmt[i])) s.length += fmt[i++];
    if (i >= fmt.size() ||
        std::string_view("@sdiuxXocfFeEgGaAp").find(fmt[i]) == std::string_view::npos) {
      // Not a conversion we know: keep the text as written.
      out.append(fmt.substr(start, i - start));
      continue;
    }
    s.conversion = fmt[i++];
    if (s.width.size() > 4) s.width.resize(4);  // a width of thousands is a malformed format
    if (s.precision.size() > 5) s.precision.resize(5);
    if (next >= args.size()) {
      out += "(null)";
      continue;
    }
    out += convert(s, args[next++]);
  }
  return out;
}

// ---- Error ----

Error Error::withDescription(std::string domain, int64_t code, std::string description) {
  Error e{std::move(domain), code, {}};
  e.userInfo.set(kErrorDescriptionKey, std::move(description));
  return e;
}

Error Error::withReason(std::string reason) {
  Error e = withDescription("com.brindle.Vorlund", 1, reason);
  e.userInfo.set("Reason", std::move(reason));
  return e;
}

std::string Error::localizedDescription() const {
  if (auto* s = userInfo.get(kErrorDescriptionKey).asString()) return *s;
  return format("The operation couldn't be completed. (%@ error %lld.)", domain,
                static_cast<long long>(code));
}

std::string Error::description() const {
  return format("Error Domain=%@ Code=%lld \"%@\" UserInfo=%@", domain,
                static_cast<long long>(code), localizedDescription(), userInfo);
}

}  // namespace vl
