#include "vorlund/conversion/dictionary_keys.h"

#include "vorlund/logging/log.h"

bool VLDoesDictionaryContainKeys(const vl::Dictionary& dictionary, const vl::Array& keys,
                                 vl::Error* error) {
  vl::Array missing;
  for (const vl::Value& key : keys) {
    const std::string* name = key.asString();
    if (!name || !dictionary.contains(*name)) missing.push_back(key);
  }
  if (missing.empty()) return true;
  std::string message = vl::format("Dictionary %@ does not contain the following keys:%@",
                                   dictionary, missing);
  VLLog(VLLogLevelError, "Framework", "%@", message);
  if (error) {
    vl::Error e = vl::Error::withDescription(kVLErrorDomain, kVLErrorKeysNotInDictionary, message);
    e.userInfo.set(kVLKeysNotInDictionaryKey, std::move(missing));
    e.userInfo.set(kVLDictionaryCheckedKey, dictionary);
    *error = std::move(e);
  }
  return false;
}
