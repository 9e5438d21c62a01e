#include "tools/qimtool/json_writer.h"

JsonWriter& JsonWriter::key(const std::string& name) {
    before_value();
    write_escaped(name);
    std::fputc(':', out_);
    after_key_ = true;
    return *this;
}

JsonWriter& JsonWriter::string(const std::string& value) {
    before_value();
    write_escaped(value);
    return *this;
}

JsonWriter& JsonWriter::number(uint64_t value) {
    before_value();
    std::fprintf(out_, "%llu", static_cast<unsigned long long>(value));
    return *this;
}

JsonWriter& JsonWriter::null() {
    before_value();
    std::fputs("null", out_);
    return *this;
}

JsonWriter& JsonWriter::open(char c) {
    before_value();
    std::fputc(c, out_);
    first_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::close(char c) {
    first_.pop_back();
    std::fputc(c, out_);
    return *this;
}

void JsonWriter::before_value() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) std::fputc(',', out_);
        first_.back() = false;
    }
}

void JsonWriter::write_escaped(const std::string& s) {
    std::fputc('"', out_);
    for (unsigned char c : s) {
        switch (c) {
            case '"': std::fputs("\\\"", out_); break;
            case '\\': std::fputs("\\\\", out_); break;
            case '\n': std::fputs("\\n", out_); break;
            case '\t': std::fputs("\\t", out_); break;
            case '\r': std::fputs("\\r", out_); break;
            default:
                if (c < 0x20) {
                    std::fprintf(out_, "\\u%04x", c);
                } else {
                    std::fputc(c, out_);
                }
        }
    }
    std::fputc('"', out_);
}
