#include "common/json.h"

#include <codecvt>
#include <cstdlib>
#include <locale>
#include <stdexcept>
#include <utility>

#include "common/utils.h"

namespace cache {

namespace {

// Shared ownership of a value whose reference the caller hands over.
std::shared_ptr<json_t> Own(json_t* value) {
    return std::shared_ptr<json_t>(value, [](json_t* v) { json_decref(v); });
}

// The value named by `path` below `start`, or null.
json_t* Lookup(json_t* start, const char* path) {
    if (path == nullptr) return nullptr;
    json_t* current = start;
    for (const std::string& piece : split(path, '/')) {
        if (current == nullptr) break;
        if (!piece.empty()) current = json_object_get(current, piece.c_str());
    }
    return current;
}

// std::wstring_convert is deprecated without a standard replacement; it is
// still the library's UTF-8 converter.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
using Utf8Converter = std::wstring_convert<std::codecvt_utf8<wchar_t>>;

// Standard libraries word the converter's error differently; callers see one
// text everywhere.
std::wstring FromUtf8(const std::string& text) {
    try {
        return Utf8Converter().from_bytes(text);
    } catch (const std::range_error&) {
        throw std::range_error("wstring_convert: from_bytes error");
    }
}

std::string ToUtf8(const std::wstring& text) {
    return Utf8Converter().to_bytes(text);
}
#pragma GCC diagnostic pop

std::string Dump(const json_t* value, size_t flags) {
    char* text = json_dumps(value, flags);
    if (text == nullptr) return std::string();
    std::string result(text);
    std::free(text);
    return result;
}

// Sets `key` of `object` to `value`, whose reference the caller hands over.
bool SetMember(json_t* object, const char* key, json_t* value) {
    if (object == nullptr) {
        json_decref(value);
        return false;
    }
    return json_object_set_new(object, key, value) == 0;
}

}  // namespace

void InitJson() {
    json_set_alloc_funcs(std::malloc, std::free);
}

JsonObject::JsonObject() : json_(json_object()) {}

JsonObject::JsonObject(json_t* value) : json_(json_incref(value)) {}

JsonObject::JsonObject(std::shared_ptr<json_t> value) : json_(json_incref(value.get())) {}

JsonObject::JsonObject(const JsonObject& other) : json_(json_incref(other.json_)) {}

JsonObject::JsonObject(JsonObject&& other) noexcept : json_(std::exchange(other.json_, nullptr)) {}

JsonObject& JsonObject::operator=(const JsonObject& other) {
    json_t* previous = json_;
    json_ = json_incref(other.json_);
    json_decref(previous);
    return *this;
}

JsonObject& JsonObject::operator=(JsonObject&& other) noexcept {
    if (this != &other) {
        json_decref(json_);
        json_ = std::exchange(other.json_, nullptr);
    }
    return *this;
}

JsonObject::~JsonObject() {
    json_decref(json_);
}

JsonObject JsonObject::Adopt(json_t* value) {
    JsonObject object(value);
    json_decref(value);
    return object;
}

JsonObject::operator std::string() const {
    const char* text = json_string_value(json_);
    return text == nullptr ? std::string() : std::string(text, json_string_length(json_));
}

JsonObject::operator std::wstring() const {
    return FromUtf8(static_cast<std::string>(*this));
}

JsonObject::operator unsigned long long() const {
    return static_cast<unsigned long long>(json_integer_value(json_));
}

JsonObject::operator long long() const {
    return json_integer_value(json_);
}

JsonObject::operator long() const {
    return static_cast<long>(json_integer_value(json_));
}

JsonObject::operator int() const {
    return static_cast<int>(json_integer_value(json_));
}

JsonObject::operator AERROR() const {
    return static_cast<AERROR>(json_integer_value(json_));
}

JsonObject::operator double() const {
    return json_real_value(json_);
}

JsonObject::operator bool() const {
    return json_is_true(json_);
}

JsonObject::operator std::shared_ptr<json_t>() const {
    return Own(json_incref(json_));
}

JsonObject& JsonObject::operator=(const std::string& text) {
    json_t* previous = json_;
    json_ = json_stringn(text.data(), text.size());
    json_decref(previous);
    return *this;
}

JsonObject JsonObject::GetObject(const char* path) const {
    json_t* value = Lookup(json_, path);
    if (value == nullptr) throw AE_NOT_FOUND;
    return JsonObject(value);
}

bool JsonObject::HasObject(const char* path) const {
    return Lookup(json_, path) != nullptr;
}

JsonObject JsonObject::operator[](unsigned long index) const {
    return JsonObject(json_array_get(json_, index));
}

size_t JsonObject::GetArraySize() const {
    return json_array_size(json_);
}

bool JsonObject::Insert(const char* key, const std::string& value) {
    return SetMember(json_, key, json_stringn(value.data(), value.size()));
}

bool JsonObject::Insert(const char* key, const std::wstring& value) {
    try {
        return Insert(key, ToUtf8(value));
    } catch (const std::range_error&) {
        return false;
    }
}

bool JsonObject::Insert(const char* key, unsigned long long value) {
    return SetMember(json_, key, json_integer(static_cast<json_int_t>(value)));
}

bool JsonObject::Insert(const char* key, long long value) {
    return SetMember(json_, key, json_integer(value));
}

bool JsonObject::Insert(const char* key, int value) {
    return SetMember(json_, key, json_integer(value));
}

bool JsonObject::Insert(const char* key, double value) {
    return SetMember(json_, key, json_real(value));
}

bool JsonObject::Insert(const char* key, JsonObject& value) {
    return SetMember(json_, key, json_incref(value.json_));
}

bool JsonObject::InsertArrayItem(const std::string& item) {
    if (!json_is_array(json_)) *this = Adopt(json_array());
    return json_array_append_new(json_, json_stringn(item.data(), item.size())) == 0;
}

bool JsonObject::InsertArrayItem(JsonObject& item) {
    if (!json_is_array(json_)) *this = Adopt(json_array());
    return json_array_insert(json_, 0, item.json_) == 0;
}

void* JsonObject::Iter() const {
    return json_object_iter(json_);
}

void* JsonObject::IterNext(void* it) const {
    return json_object_iter_next(json_, it);
}

std::string JsonObject::IterKey(void* it) const {
    const char* key = json_object_iter_key(it);
    return key == nullptr ? std::string() : std::string(key);
}

JsonObject JsonObject::IterValue(void* it) const {
    return JsonObject(json_object_iter_value(it));
}

JsonObject JsonObject::Copy() const {
    return Adopt(json_deep_copy(json_));
}

std::string JsonObject::ToText(size_t flags) const {
    return Dump(json_, flags);
}

Json::Json() : error_(), root_(Own(json_object())) {}

Json::Json(const char* text) : error_() {
    if (text == nullptr) {
        root_ = Own(json_object());
        return;
    }
    InitJson();
    root_ = Own(json_loads(text, 0, &error_));
    if (!root_) throw AE_INVALID_CONFIG;
}

Json::Json(const char* text, unsigned int length) : Json(text, length, 0) {
    if (!root_) throw AE_INVALID_CONFIG;
}

Json::Json(const char* text, unsigned int length, unsigned long flags) : error_() {
    InitJson();
    root_ = Own(json_loadb(text, length, flags, &error_));
}

Json::~Json() = default;

Json::operator bool() const {
    return root_ != nullptr;
}

JsonObject Json::GetObject(const char* path) const {
    return JsonObject(root_).GetObject(path);
}

bool Json::HasObject(const char* path) const {
    return JsonObject(root_).HasObject(path);
}

int Json::DeleteObject(const char* key) {
    return json_object_del(root_.get(), key);
}

bool Json::Insert(const char* key, const std::string& value) {
    return JsonObject(root_).Insert(key, value);
}

bool Json::Insert(const char* key, const std::wstring& value) {
    return JsonObject(root_).Insert(key, value);
}

bool Json::Insert(const char* key, unsigned long long value) {
    return JsonObject(root_).Insert(key, value);
}

bool Json::Insert(const char* key, long long value) {
    return JsonObject(root_).Insert(key, value);
}

bool Json::Insert(const char* key, int value) {
    return JsonObject(root_).Insert(key, value);
}

bool Json::Insert(const char* key, double value) {
    return JsonObject(root_).Insert(key, value);
}

bool Json::Insert(const char* key, JsonObject& value) {
    return JsonObject(root_).Insert(key, value);
}

std::string Json::ToText() const {
    return Dump(root_.get(), JSON_COMPACT);
}

}  // namespace cache
