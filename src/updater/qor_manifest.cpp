#include "updater/qor_manifest.h"

#include <nlohmann/json.hpp>

namespace qor {
namespace {

using nlohmann::json;

// Thrown inside the decoder only; decodeManifest turns it into an Error.
struct DecodingFailure {
  ManifestErrorCode code;
  std::string description;
};

std::string typeName(const json& value) {
  if (value.is_number_integer()) return "an integer";
  if (value.is_number_float()) return "the number " + value.dump();
  if (value.is_string()) return "a string";
  if (value.is_boolean()) return "a boolean";
  if (value.is_array()) return "an array";
  if (value.is_object()) return "an object";
  return "null";
}

[[noreturn]] void wrongType(const std::string& where, const char* expected, const json& value) {
  throw DecodingFailure{manifestWrongType,
                        "\"" + where + "\" must be " + expected + ", not " + typeName(value)};
}

std::string join(const std::string& parent, const std::string& key) {
  return parent.empty() ? key : parent + "." + key;
}

// The value under `key`; null counts as absent, as optional fields allow.
const json* member(const json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return nullptr;
  return &*found;
}

// A null required value is not missing: it fails on its type.
const json& required(const json& object, const std::string& where, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) {
    throw DecodingFailure{manifestMissingKey, "\"" + join(where, key) + "\" is missing"};
  }
  return *found;
}

std::string string(const json& value, const std::string& where) {
  if (!value.is_string()) wrongType(where, "a string", value);
  return value.get<std::string>();
}

std::optional<std::string> optionalString(const json& object, const std::string& where,
                                          const char* key) {
  const json* value = member(object, key);
  if (!value) return std::nullopt;
  return string(*value, join(where, key));
}

// A signed 64-bit whole number, written as one: a float such as 12.0 or
// 1e3 is refused, since its text may have lost digits on the way
// (-9223372036854775809 reads as -2^63).
std::int64_t int64(const json& value, const std::string& where) {
  constexpr const char* expected = "a whole number within the signed 64-bit range";
  if (value.is_number_unsigned()) {
    const auto number = value.get<std::uint64_t>();
    if (number <= static_cast<std::uint64_t>(INT64_MAX)) return static_cast<std::int64_t>(number);
  } else if (value.is_number_integer()) {
    return value.get<std::int64_t>();
  }
  wrongType(where, expected, value);
}

const json& object(const json& value, const std::string& where) {
  if (!value.is_object()) wrongType(where, "an object", value);
  return value;
}

QorAsset decodeAsset(const json& value, const std::string& where) {
  object(value, where);
  QorAsset asset;
  asset.url = string(required(value, where, "url"), join(where, "url"));
  asset.sha256 = string(required(value, where, "sha256"), join(where, "sha256"));
  if (const json* size = member(value, "size")) asset.size = int64(*size, join(where, "size"));
  return asset;
}

QorManifest decode(const json& document) {
  if (!document.is_object()) {
    throw DecodingFailure{manifestWrongType,
                          "the manifest must be a JSON object, not " + typeName(document)};
  }
  QorManifest manifest;
  manifest.version = string(required(document, "", "version"), "version");
  manifest.notes = optionalString(document, "", "notes");
  manifest.minVersion = optionalString(document, "", "min_version");
  const json& platforms = object(required(document, "", "platforms"), "platforms");
  for (const auto& [key, value] : platforms.items()) {
    manifest.platforms.emplace(key, decodeAsset(value, join("platforms", key)));
  }
  return manifest;
}

// nlohmann's messages start with "[json.exception.parse_error.101] ".
std::string withoutExceptionTag(const std::string& message) {
  if (!message.starts_with("[json.exception.")) return message;
  const auto end = message.find("] ");
  return end == std::string::npos ? message : message.substr(end + 2);
}

}  // namespace

Result<QorManifest> decodeManifest(std::string_view text) {
  json document;
  try {
    document = json::parse(text);
  } catch (const json::exception& failure) {
    return Error{manifestErrorDomain, manifestNotJSON,
                 "the manifest is not valid JSON (" + withoutExceptionTag(failure.what()) + ")"};
  }
  try {
    return decode(document);
  } catch (const DecodingFailure& failure) {
    return Error{manifestErrorDomain, failure.code, failure.description};
  }
}

std::string encodeManifest(const QorManifest& manifest) {
  // Ordered, so the document reads in the records' field order.
  nlohmann::ordered_json document;
  document["version"] = manifest.version;
  if (manifest.notes) document["notes"] = *manifest.notes;
  if (manifest.minVersion) document["min_version"] = *manifest.minVersion;
  auto& platforms = document["platforms"] = nlohmann::ordered_json::object();
  for (const auto& [key, asset] : manifest.platforms) {
    auto& entry = platforms[key];
    entry["url"] = asset.url;
    entry["sha256"] = asset.sha256;
    if (asset.size) entry["size"] = *asset.size;
  }
  return document.dump(2) + "\n";
}

}  // namespace qor
