// Feeds the service's message decoder (vl::ipm::readDictionary) D-Bus messages of any shape a
// client could send: the fuzzer's bytes choose the signature and contents of each argument, which
// are appended through sd-bus and sealed as a received message. sd-bus offers no public way to
// parse a message from raw bytes without a peer, so its own wire parser is not what is fuzzed
// here; our decoder and the IPM value conversion behind it (VLIPMDictionaryToNSDictionary and
// back) are. A decoded message must be sent again unchanged.
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "vorlund/conversion/ipm_conversion.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/message_codec.h"

namespace {

using vl::ipm::ScopedMessage;

constexpr int kMaxDepth = 6;
constexpr size_t kMaxItems = 4;

// A bus that never connects: messages need a started bus to be created, and a socket pair
// without a peer starts one without any daemon. It stays in authentication for good, so it is
// never flushed (a flush would wait for the peer for ever) and lives as long as the process.
sd_bus* unconnectedBus() {
  static sd_bus* const bus = [] {
    sd_bus* raw = nullptr;
    int fds[2];
    if (sd_bus_new(&raw) < 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) < 0 ||
        sd_bus_set_fd(raw, fds[0], fds[0]) < 0 || sd_bus_start(raw) < 0) {
      ::abort();
    }
    return raw;
  }();
  return bus;
}

int someDescriptor() {
  static const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  return fd;
}

// One complete D-Bus type. The types of the IPM mapping come up more often than the others, so
// that most inputs get past the first refusal.
std::string completeType(FuzzedDataProvider& in, int depth) {
  static const char* const kTypes[] = {"d", "x", "t", "b",  "s",     "ay",   "(x)", "av", "a{sv}",
                                       "h", "y", "n", "q",  "i",     "u",    "o",   "g",  "v",
                                       "a", "(", "{", "as", "a{ss}", "(xx)", "r"};
  std::string type = in.PickValueInArray(kTypes);
  if (depth >= kMaxDepth && (type == "a" || type == "(" || type == "{" || type == "v")) return "s";
  if (type == "a") return "a" + completeType(in, depth + 1);
  if (type == "(") {
    std::string fields = completeType(in, depth + 1);
    if (in.ConsumeBool()) fields += completeType(in, depth + 1);
    return "(" + fields + ")";
  }
  if (type == "{") {
    static const char* const kKeys[] = {"s", "x", "y", "b"};
    return std::string("a{") + in.PickValueInArray(kKeys) + completeType(in, depth + 1) + "}";
  }
  // A struct signature without fields: sd-bus must refuse it.
  if (type == "r") return "()";
  return type;
}

// Length of the complete type at the start of signature.
size_t typeLength(std::string_view signature) {
  if (signature.empty()) return 0;
  char first = signature[0];
  if (first == 'a') return 1 + typeLength(signature.substr(1));
  if (first != '(' && first != '{') return 1;
  char close = first == '(' ? ')' : '}';
  size_t at = 1;
  while (at < signature.size() && signature[at] != close) {
    size_t inner = typeLength(signature.substr(at));
    if (inner == 0) return 0;
    at += inner;
  }
  return at < signature.size() ? at + 1 : 0;
}

bool appendOfType(sd_bus_message* m, std::string_view type, FuzzedDataProvider& in, int depth);

bool appendFields(sd_bus_message* m, std::string_view fields, FuzzedDataProvider& in, int depth) {
  while (!fields.empty()) {
    size_t length = typeLength(fields);
    if (length == 0 || !appendOfType(m, fields.substr(0, length), in, depth)) return false;
    fields.remove_prefix(length);
  }
  return true;
}

bool appendContainer(sd_bus_message* m, char kind, std::string_view contents,
                     FuzzedDataProvider& in, int depth) {
  std::string inner(contents);
  if (sd_bus_message_open_container(m, kind, inner.c_str()) < 0) return false;
  bool filled = true;
  if (kind == 'a') {
    size_t count = in.ConsumeIntegralInRange<size_t>(0, kMaxItems);
    for (size_t i = 0; i < count && filled; ++i) filled = appendOfType(m, contents, in, depth + 1);
  } else {
    filled = appendFields(m, contents, in, depth + 1);
  }
  return filled && sd_bus_message_close_container(m) >= 0;
}

template <typename T>
bool appendBasic(sd_bus_message* m, char type, T value) {
  return sd_bus_message_append_basic(m, type, &value) >= 0;
}

bool appendOfType(sd_bus_message* m, std::string_view type, FuzzedDataProvider& in, int depth) {
  switch (type[0]) {
    case 'y':
      return appendBasic(m, 'y', in.ConsumeIntegral<uint8_t>());
    case 'n':
      return appendBasic(m, 'n', in.ConsumeIntegral<int16_t>());
    case 'q':
      return appendBasic(m, 'q', in.ConsumeIntegral<uint16_t>());
    case 'i':
      return appendBasic(m, 'i', in.ConsumeIntegral<int32_t>());
    case 'u':
      return appendBasic(m, 'u', in.ConsumeIntegral<uint32_t>());
    case 'x':
      return appendBasic(m, 'x', in.ConsumeIntegral<int64_t>());
    case 't':
      return appendBasic(m, 't', in.ConsumeIntegral<uint64_t>());
    case 'd':
      return appendBasic(m, 'd', in.ConsumeFloatingPoint<double>());
    case 'b':
      return appendBasic(m, 'b', int{in.ConsumeBool()});
    case 'h':
      return appendBasic(m, 'h', someDescriptor());
    case 's':
    case 'o':
    case 'g': {
      // sd-bus refuses strings that are not UTF-8, paths and signatures that are malformed.
      std::string text = in.ConsumeRandomLengthString(64);
      return sd_bus_message_append_basic(m, type[0], text.c_str()) >= 0;
    }
    case 'v': {
      std::string inner = completeType(in, depth + 1);
      return appendContainer(m, 'v', inner, in, depth);
    }
    case 'a':
      return appendContainer(m, 'a', type.substr(1), in, depth);
    case '(':
      return appendContainer(m, 'r', type.substr(1, type.size() - 2), in, depth);
    case '{':
      return appendContainer(m, 'e', type.substr(1, type.size() - 2), in, depth);
    default:
      return false;
  }
}

ScopedMessage newMessage() {
  sd_bus_message* m = nullptr;
  if (sd_bus_message_new_method_call(unconnectedBus(), &m, vl::ipm::kServiceName,
                                     vl::ipm::kObjectPath, vl::ipm::kInterfaceName,
                                     vl::ipm::kMethodName) < 0) {
    ::abort();
  }
  return ScopedMessage(m);
}

// Seals the message and rewinds it, as a receiver gets it.
bool asReceived(sd_bus_message* m) {
  return sd_bus_message_seal(m, 1, 0) >= 0 && sd_bus_message_rewind(m, true) >= 0;
}

// A full text of a value for comparison (the values' own descriptions stop at the first level).
// Descriptors are duplicated on every read, so only their kind is compared.
std::string dump(const vl::IpmValue& v) {
  std::string out = v.typeName();
  switch (v.type()) {
    case vl::IpmValue::Type::Array:
      out += "[";
      for (const vl::IpmValue& item : *v.asArray()) out += dump(item) + ",";
      return out + "]";
    case vl::IpmValue::Type::Dictionary:
      out += "{";
      for (const auto& [key, item] : v.asDictionary()->entries())
        out += key + ":" + dump(item) + ",";
      return out + "}";
    case vl::IpmValue::Type::FileDescriptor:
      return out;
    default:
      return v.description();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  ScopedMessage message = newMessage();
  // Mostly the one a{sv} argument of a request; sometimes arguments of any type, which the
  // decoder must refuse.
  std::string signature = in.ConsumeIntegralInRange<int>(0, 7) == 0 ? completeType(in, 0) : "a{sv}";
  if (signature == "a{sv}") {
    if (sd_bus_message_open_container(message.get(), 'a', "{sv}") < 0) ::abort();
    size_t count = in.ConsumeIntegralInRange<size_t>(0, kMaxItems);
    for (size_t i = 0; i < count; ++i) {
      std::string key = in.ConsumeRandomLengthString(16);
      std::string type = completeType(in, 1);
      if (sd_bus_message_open_container(message.get(), 'e', "sv") < 0 ||
          sd_bus_message_append_basic(message.get(), 's', key.c_str()) < 0 ||
          !appendContainer(message.get(), 'v', type, in, 1) ||
          sd_bus_message_close_container(message.get()) < 0) {
        return 0;
      }
    }
    if (sd_bus_message_close_container(message.get()) < 0) return 0;
  } else if (!appendOfType(message.get(), signature, in, 0)) {
    return 0;
  }
  if (!asReceived(message.get())) return 0;

  vl::Error error;
  std::optional<vl::IpmValue> request = vl::ipm::readDictionary(message.get(), &error);
  if (!request) return 0;

  std::optional<vl::Dictionary> converted = VLIPMDictionaryToNSDictionary(*request);
  vl::fuzz::require(converted.has_value(), "a decoded request converts to a dictionary");
  VLNSDictionaryToIPMDictionary(*converted);

  ScopedMessage reply = newMessage();
  vl::fuzz::require(vl::ipm::appendDictionary(reply.get(), *request, &error),
                    "a decoded request can be sent again", error.description());
  vl::fuzz::require(asReceived(reply.get()), "a re-sent request seals");
  std::optional<vl::IpmValue> again = vl::ipm::readDictionary(reply.get(), &error);
  vl::fuzz::require(again && dump(*again) == dump(*request),
                    "a re-sent request decodes to the same values");
  return 0;
}
