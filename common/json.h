// JSON documents and values over Jansson, addressed by slash-separated paths
// such as "/cache/read/timeout".
//
// A Json owns a parsed (or new) document; a JsonObject refers to one value,
// inside a document or on its own, and keeps it alive by reference count.
// Copies of a JsonObject refer to the same value. Neither class locks: a
// document that one thread modifies must not be used by another at the same
// time, while read-only use from several threads is safe.
//
// Failures are thrown as AERROR values: AE_INVALID_CONFIG (6001) for text
// that does not parse, AE_NOT_FOUND (2) for a path that names no value.
#ifndef CACHE_COMMON_JSON_H_
#define CACHE_COMMON_JSON_H_

#include <jansson.h>

#include <memory>
#include <string>

#include "cache/cache.h"

namespace cache {

// Installs malloc and free as Jansson's memory functions. The parsing Json
// constructors call it before every parse, so that texts printed by this
// wrapper are always released with free().
void InitJson();

class JsonObject {
  public:
    // A new empty JSON object.
    JsonObject();
    // Refer to `value`, taking a reference of its own. A null value gives an
    // object without a value: conversions yield empty or zero results and
    // lookups find nothing.
    explicit JsonObject(json_t* value);
    explicit JsonObject(std::shared_ptr<json_t> value);
    JsonObject(const JsonObject& other);
    JsonObject(JsonObject&& other) noexcept;
    JsonObject& operator=(const JsonObject& other);
    JsonObject& operator=(JsonObject&& other) noexcept;
    virtual ~JsonObject();

    // The string value; empty when the value is not a string.
    operator std::string() const;
    // The string value decoded from UTF-8. Throws std::range_error
    // ("wstring_convert: from_bytes error") when the bytes are not UTF-8.
    operator std::wstring() const;
    // The integer value narrowed to the target; 0 when not an integer.
    operator unsigned long long() const;
    operator long long() const;
    operator long() const;
    operator int() const;
    operator AERROR() const;
    // The real value. An integer value deliberately converts to 0.0.
    operator double() const;
    // True exactly when the value is the literal true.
    operator bool() const;
    // The value itself, kept alive by the returned pointer.
    operator std::shared_ptr<json_t>() const;

    // Makes this object refer to a new string value instead of its own.
    JsonObject& operator=(const std::string& text);

    // Path lookup from this value. Empty pieces (a leading slash, doubled
    // slashes) are skipped, so "/a/b" and "a/b" name the same member and
    // "/" names this value. GetObject throws AE_NOT_FOUND when the path
    // names no value.
    JsonObject GetObject(const char* path) const;
    bool HasObject(const char* path) const;

    // Element `index` of an array; no value when out of range.
    JsonObject operator[](unsigned long index) const;
    // Element count of an array; 0 for any other value.
    size_t GetArraySize() const;

    // Set member `key` of this object to a new value (strings are stored as
    // UTF-8); the JsonObject form stores the other object's value itself,
    // shared. False when this value is not an object or the value cannot be
    // built; never throws.
    bool Insert(const char* key, const std::string& value);
    bool Insert(const char* key, const std::wstring& value);
    bool Insert(const char* key, unsigned long long value);
    bool Insert(const char* key, long long value);
    bool Insert(const char* key, int value);
    bool Insert(const char* key, double value);
    bool Insert(const char* key, JsonObject& value);

    // Add an item to this array; a value that is not an array is first
    // replaced by a new empty array. Strings are appended at the end while
    // objects are deliberately inserted at the front.
    bool InsertArrayItem(const std::string& item);
    bool InsertArrayItem(JsonObject& item);

    // Iteration over the members of an object: Iter() gives the first
    // position, IterNext() the following one, null after the last.
    void* Iter() const;
    void* IterNext(void* it) const;
    std::string IterKey(void* it) const;
    JsonObject IterValue(void* it) const;

    // A deep copy of the value.
    JsonObject Copy() const;
    // The value printed with Jansson's encoding `flags`, by default without
    // any white space; empty when it cannot be printed (without
    // JSON_ENCODE_ANY, that is any value but an object or an array).
    std::string ToText(size_t flags = JSON_COMPACT) const;

  private:
    // Wraps a value whose reference the caller hands over.
    static JsonObject Adopt(json_t* value);

    json_t* json_;
};

class Json {
  public:
    // A document whose root is a new empty object.
    Json();
    // Parses the zero-terminated `text`; a null text gives an empty object.
    // Throws AE_INVALID_CONFIG when the text does not parse.
    explicit Json(const char* text);
    // Parses `length` bytes of `text`. Throws AE_INVALID_CONFIG when they do
    // not parse.
    Json(const char* text, unsigned int length);
    // Parses `length` bytes of `text` with Jansson decoding `flags`. Does not
    // throw: when the bytes do not parse the document has no root.
    Json(const char* text, unsigned int length, unsigned long flags);
    Json(const Json&) = delete;
    Json& operator=(const Json&) = delete;
    virtual ~Json();

    // True when the document has a root.
    explicit operator bool() const;

    // The parser's line, column and message of the last parse.
    const json_error_t& GetError() const { return error_; }

    // Path lookup from the root, as JsonObject::GetObject and HasObject.
    JsonObject GetObject(const char* path) const;
    bool HasObject(const char* path) const;

    // Removes member `key` of the root: 0 when removed, -1 otherwise.
    int DeleteObject(const char* key);

    // As JsonObject::Insert, on the root.
    bool Insert(const char* key, const std::string& value);
    bool Insert(const char* key, const std::wstring& value);
    bool Insert(const char* key, unsigned long long value);
    bool Insert(const char* key, long long value);
    bool Insert(const char* key, int value);
    bool Insert(const char* key, double value);
    bool Insert(const char* key, JsonObject& value);

    // The root printed without any white space.
    std::string ToText() const;

  private:
    json_error_t error_;
    std::shared_ptr<json_t> root_;
};

}  // namespace cache

#endif  // CACHE_COMMON_JSON_H_
