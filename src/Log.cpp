#include "Log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/file.h"

namespace kelm_recvault {

namespace {

constexpr size_t kMaxText = 1024;
constexpr size_t kMaxSource = 64;
constexpr size_t kMaxFunction = 160;

void copy_cut(std::string_view text, char *out, size_t size) {
    const size_t length = std::min(text.size(), size - 1);
    std::memcpy(out, text.data(), length);
    out[length] = '\0';
}

struct PlaceText {
    char source[kMaxSource];
    char function[kMaxFunction];

    explicit PlaceText(const LogPlace &place) {
        source_form(place.file, source, sizeof(source));
        function_form(place.function, function, sizeof(function));
    }
};

}  // namespace

void log_print(const char *format, ...) {
    char text[kMaxText + 1];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (length > 0) platform::write_log(text, std::min(static_cast<size_t>(length), kMaxText));
}

void log_trace(const LogPlace &place) {
    const PlaceText text(place);
    log_print("[rcvt: %s::%s]: %d entered\n", text.source, text.function, place.line);
}

void log_head(const char *level, const LogPlace &place) {
    const PlaceText text(place);
    log_print("%s[rcvt: %s::%s : %d] \n", level, text.source, text.function, place.line);
}

void source_form(const char *file, char *out, size_t size) {
    const std::string_view path(file);
    size_t from = path.rfind("/src/");
    if (from == std::string_view::npos) from = path.rfind('/');
    from = from == std::string_view::npos ? 0 : from + 1;
    const bool below_src = path.substr(from).starts_with("src/");
    std::snprintf(out, size, "%s%s", below_src ? ".\\" : ".\\src\\", path.data() + from);
    std::replace(out, out + std::strlen(out), '/', '\\');
}

// "int32_t kelm_recvault::CThread<T>::Start(T*, int) [with T = X]" gives "kelm_recvault::CThread<T>::Start": what stands
// between the last space and the first bracket that lie outside of angle brackets.
void function_form(const char *pretty_function, char *out, size_t size) {
    const std::string_view pretty(pretty_function);
    constexpr std::string_view kUnnamed = "(anonymous namespace)";
    size_t begin = 0;
    int32_t depth = 0;
    for (size_t i = 0; i < pretty.size(); ++i) {
        if (pretty.substr(i).starts_with(kUnnamed)) {
            i += kUnnamed.size() - 1;
            continue;
        }
        if (pretty[i] == '<') ++depth;
        if (pretty[i] == '>') --depth;
        if (depth != 0) continue;
        if (pretty[i] == '(') {
            copy_cut(pretty.substr(begin, i - begin), out, size);
            return;
        }
        if (pretty[i] == ' ' || pretty[i] == '*' || pretty[i] == '&') begin = i + 1;
    }
    copy_cut(pretty, out, size);
}

}  // namespace kelm_recvault
