// A table of named settings, each bound to a path in a JSON document and to
// a default text.
//
// The owner registers its settings with AddConfiguration, feeds JSON texts to
// Parse and reads values as texts with GetValue; what a setting means is the
// owner's business. One mutex guards every operation, so any thread may call
// any operation, and a Parse updates all values atomically for readers.
#ifndef CACHE_COMMON_CONFIG_H_
#define CACHE_COMMON_CONFIG_H_

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "common/json.h"

namespace cache {

// One setting: where it lives in a document, its current value and its
// default. A new entry holds three empty texts.
struct _CONFIGURATION {
    std::string path;
    std::string value;
    std::string defaultValue;
};

class Config {
  public:
    // Parses `text` as the first document (an empty text parses nothing).
    // No setting is registered yet, so this only checks and keeps it.
    // Throws AE_INVALID_CONFIG when the text is not JSON.
    explicit Config(std::string text);
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;
    virtual ~Config();

    // Registers setting `name` at JSON `path` with value and default
    // `defaultValue`, replacing a setting of the same name.
    void AddConfiguration(std::string name, std::string path, std::string defaultValue);

    // Makes `text` the current document and takes up the value of every
    // setting whose path it holds; the others keep their values (they do
    // not fall back to the default). A string gives its value, any other
    // JSON value its compact JSON text, so 5000 and "5000" both give 5000.
    // An empty text changes nothing. Throws AE_INVALID_CONFIG, changing
    // nothing, when the text is not JSON.
    void Parse(std::string text);

    // The current value of setting `name`. An unknown name yields the empty
    // text and is deliberately registered with empty path, value and
    // default.
    std::string GetValue(std::string name);

  private:
    std::mutex lock_;
    std::shared_ptr<Json> document_;
    std::unordered_map<std::string, _CONFIGURATION> entries_;
};

}  // namespace cache

#endif  // CACHE_COMMON_CONFIG_H_
