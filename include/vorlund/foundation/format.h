// The system's one message formatter: printf conversions plus "%@" for any value, record or string,
// printed through its description. Every log line and message text of the system goes through it
// with its format string verbatim.
//
// Supported conversions: %d %i %ld %lld %zd %u %lu %llu %zu %x %X %c %f %e %g %s %p %@ %% with
// flags, width and precision ("%02d", "%.1f", "%0.2f", "%-10s"). Arguments are checked against the
// conversions at run time: a number given to %s or %@ prints as a number, a string given to %d prints
// as the string, and a missing argument prints as "(null)". Formatting never throws and never reads
// past the arguments it was given.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "vorlund/foundation/value.h"

namespace vl {

struct Error;

// One argument of vl::format, erased to what a conversion can print.
class FormatArg {
 public:
  enum class Kind { Signed, Unsigned, Floating, Text, Pointer, Object };

  template <typename T, typename = std::enable_if_t<std::is_integral_v<T>>>
  FormatArg(T v) {
    if constexpr (std::is_same_v<T, bool>) {
      kind_ = Kind::Signed;
      signed_ = v ? 1 : 0;
    } else if constexpr (std::is_signed_v<T>) {
      kind_ = Kind::Signed;
      signed_ = static_cast<int64_t>(v);
    } else {
      kind_ = Kind::Unsigned;
      unsigned_ = static_cast<uint64_t>(v);
    }
  }
  FormatArg(double v) : kind_(Kind::Floating), floating_(v) {}
  FormatArg(float v) : kind_(Kind::Floating), floating_(v) {}
  FormatArg(const char* s) : kind_(s ? Kind::Text : Kind::Object), text_(s ? s : "") {}
  FormatArg(const std::string& s) : kind_(Kind::Text), text_(s) {}
  FormatArg(std::string_view s) : kind_(Kind::Text), text_(s) {}
  FormatArg(const void* p) : kind_(Kind::Pointer), pointer_(p) {}
  FormatArg(const Value& v);
  FormatArg(const Number& n) : FormatArg(Value(n)) {}
  FormatArg(const Array& a) : FormatArg(Value(a)) {}
  FormatArg(const Dictionary& d) : FormatArg(Value(d)) {}
  FormatArg(const Date& d) : FormatArg(Value(d)) {}
  FormatArg(const Data& d) : FormatArg(Value(d)) {}
  FormatArg(const Uuid& u) : FormatArg(Value(u)) {}
  FormatArg(const Error& e);
  template <typename T, typename = std::enable_if_t<std::is_base_of_v<Record, T>>>
  FormatArg(const std::shared_ptr<T>& r)
      : FormatArg(r ? Value(std::static_pointer_cast<Record>(r)) : Value()) {}
  FormatArg(const Record& r);
  FormatArg(std::nullptr_t) : kind_(Kind::Object) {}

  Kind kind() const { return kind_; }
  int64_t signedValue() const { return signed_; }
  uint64_t unsignedValue() const { return unsigned_; }
  double floatingValue() const { return floating_; }
  const void* pointerValue() const { return pointer_; }
  // The text a string argument holds, or an object's description ("(null)" for none).
  const std::string& text() const { return text_; }

 private:
  Kind kind_ = Kind::Object;
  int64_t signed_ = 0;
  uint64_t unsigned_ = 0;
  double floating_ = 0;
  const void* pointer_ = nullptr;
  std::string text_ = "(null)";
};

std::string formatArgs(std::string_view fmt, const std::vector<FormatArg>& args);

template <typename... Args>
std::string format(std::string_view fmt, const Args&... args) {
  return formatArgs(fmt, std::vector<FormatArg>{FormatArg(args)...});
}

}  // namespace vl
