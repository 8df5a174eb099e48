#include "common/config.h"

#include <utility>

namespace cache {

namespace {

// The text a setting takes from the value found at its path.
std::string ValueText(const JsonObject& object) {
    const std::shared_ptr<json_t> value = object;
    if (json_is_string(value.get())) return static_cast<std::string>(object);
    return object.ToText(JSON_COMPACT | JSON_ENCODE_ANY);
}

}  // namespace

Config::Config(std::string text) {
    Parse(std::move(text));
}

Config::~Config() = default;

void Config::AddConfiguration(std::string name, std::string path, std::string defaultValue) {
    std::lock_guard<std::mutex> hold(lock_);
    _CONFIGURATION& entry = entries_[std::move(name)];
    entry.path = std::move(path);
    entry.value = defaultValue;
    entry.defaultValue = std::move(defaultValue);
}

void Config::Parse(std::string text) {
    if (text.empty()) return;
    std::lock_guard<std::mutex> hold(lock_);
    document_ = std::make_shared<Json>(text.c_str(), static_cast<unsigned int>(text.size()));
    for (auto& named : entries_) {
        _CONFIGURATION& entry = named.second;
        // An empty path would name the whole document; entries that GetValue
        // made up for unknown names have one and must stay empty.
        if (!entry.path.empty() && document_->HasObject(entry.path.c_str())) {
            entry.value = ValueText(document_->GetObject(entry.path.c_str()));
        }
    }
}

std::string Config::GetValue(std::string name) {
    std::lock_guard<std::mutex> hold(lock_);
    return entries_[name].value;
}

}  // namespace cache
