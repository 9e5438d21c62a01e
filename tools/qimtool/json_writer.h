// A minimal streaming JSON writer: commas and string escaping are its only
// business, so output is valid JSON whatever the names and paths hold.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

class JsonWriter {
public:
    explicit JsonWriter(FILE* out) : out_(out) {}

    JsonWriter& begin_object() { return open('{'); }
    JsonWriter& end_object() { return close('}'); }
    JsonWriter& begin_array() { return open('['); }
    JsonWriter& end_array() { return close(']'); }
    JsonWriter& key(const std::string& name);
    JsonWriter& string(const std::string& value);
    JsonWriter& number(uint64_t value);
    JsonWriter& null();

private:
    JsonWriter& open(char c);
    JsonWriter& close(char c);
    void before_value();
    void write_escaped(const std::string& s);

    FILE* out_;
    std::vector<bool> first_;  // per open container: nothing written yet
    bool after_key_ = false;
};
