// Workload 8: building message texts. fcns::formatText (trim, hanging indent,
// full stop, line feed) on a one-line and on a four-line message, and the
// number-appending operators on a status line, against the same results
// built with std::ostringstream and with snprintf. Each contender's result is
// checked against kestrel's before it is timed.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include "bench_support.h"
#include "kestrel/formatting.h"
#include "kestrel/strings.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

struct FormatCase {
    const char* name;
    const char* text;
    const char* indent;
};

const FormatCase kFormatCases[] = {
    {"formatText one line", "\n\tThe plugin could not be loaded\r\n", "Error: "},
    {"formatText four lines",
     "\nThe settings file could not be read.\n"
     "It may have been moved or deleted, or another program may hold it open.\n"
     "Default settings are used until the file is restored.\n"
     "See the log for details\n",
     "Warning: "},
};

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 32;
}

// The text without its leading and trailing control characters.
void trimmed(const char* text, const char** first, const char** last) {
    *first = text;
    *last = text + std::strlen(text);
    while (*first != *last && isControl(**first)) {
        ++*first;
    }
    while (*last != *first && isControl(*(*last - 1))) {
        --*last;
    }
}

// formatText's result (with period and line feed) written with a stream.
void formatWithStream(std::string& result, const char* text, const char* indent) {
    const char* first = nullptr;
    const char* last = nullptr;
    trimmed(text, &first, &last);
    const std::string blanks(std::strlen(indent), ' ');
    std::ostringstream out;
    out << indent;
    for (const char* line = first;;) {
        const char* end = std::find(line, last, '\n');
        out.write(line, end - line);
        if (end == last) {
            break;
        }
        out << '\n' << blanks;
        line = end + 1;
    }
    if (first == last || *(last - 1) != '.') {
        out << '.';
    }
    out << '\n';
    result = out.str();
}

// The same with snprintf into a buffer.
void formatWithSnprintf(std::string& result, const char* text, const char* indent) {
    const char* first = nullptr;
    const char* last = nullptr;
    trimmed(text, &first, &last);
    const int indentLength = static_cast<int>(std::strlen(indent));
    char buffer[1024];
    std::size_t used = 0;
    auto room = [&] { return sizeof buffer - used; };
    auto add = [&](int written) { used += static_cast<std::size_t>(std::max(written, 0)); };
    add(std::snprintf(buffer, room(), "%s", indent));
    for (const char* line = first;;) {
        const char* end = std::find(line, last, '\n');
        add(std::snprintf(buffer + used, room(), "%.*s", static_cast<int>(end - line), line));
        if (end == last) {
            break;
        }
        add(std::snprintf(buffer + used, room(), "\n%*s", indentLength, ""));
        line = end + 1;
    }
    const bool hasPeriod = first != last && *(last - 1) == '.';
    add(std::snprintf(buffer + used, room(), "%s\n", hasPeriod ? "" : "."));
    result.assign(buffer, std::min(used, sizeof buffer - 1));
}

void formatKestrel(std::string& result, const char* text, const char* indent) {
    kestrel::fcns::formatText(result, text, indent, true, true);
}

using FormatFunction = void (*)(std::string&, const char*, const char*);

void formatBenchmark(benchmark::State& state, const FormatCase* testCase, FormatFunction function) {
    std::string expected;
    formatKestrel(expected, testCase->text, testCase->indent);
    std::string result;
    function(result, testCase->text, testCase->indent);
    if (result != expected) {
        state.SkipWithError("the result differs from formatText's");
        return;
    }
    for (auto _ : state) {
        function(result, testCase->text, testCase->indent);
        benchmark::DoNotOptimize(result.data());
    }
}

// ---- appending numbers ----

struct StatusValues {
    int loaded;
    long total;
    double seconds;
    bool cached;
};

// Read through a volatile pointer, so that no contender is folded away.
StatusValues statusValues() {
    static const StatusValues values{12, 15L, 0.0123456789, true};
    const volatile StatusValues* source = &values;
    return StatusValues{source->loaded, source->total, source->seconds, source->cached};
}

void appendCompound(std::string& result, const StatusValues& v) {
    using kestrel::operator+=;
    result = "Loaded ";
    result += v.loaded;
    result += " of ";
    result += v.total;
    result += " plugins in ";
    result += v.seconds;
    result += " s, cached: ";
    result += v.cached;
}

void appendChain(std::string& result, const StatusValues& v) {
    using kestrel::operator+;
    result = std::string("Loaded ") + v.loaded + " of " + v.total + " plugins in " + v.seconds +
             " s, cached: " + v.cached;
}

void appendWithStream(std::string& result, const StatusValues& v) {
    std::ostringstream out;
    out.precision(16);
    out << std::boolalpha << "Loaded " << v.loaded << " of " << v.total << " plugins in "
        << v.seconds << " s, cached: " << v.cached;
    result = out.str();
}

void appendWithSnprintf(std::string& result, const StatusValues& v) {
    char buffer[128];
    const int written =
        std::snprintf(buffer, sizeof buffer, "Loaded %d of %ld plugins in %.16g s, cached: %s",
                      v.loaded, v.total, v.seconds, v.cached ? "true" : "false");
    result.assign(buffer, static_cast<std::size_t>(std::max(written, 0)));
}

using AppendFunction = void (*)(std::string&, const StatusValues&);

void appendBenchmark(benchmark::State& state, AppendFunction function) {
    std::string expected;
    appendCompound(expected, statusValues());
    std::string result;
    function(result, statusValues());
    if (result != expected) {
        state.SkipWithError("the result differs from the appending operators'");
        return;
    }
    for (auto _ : state) {
        function(result, statusValues());
        benchmark::DoNotOptimize(result.data());
    }
}

template <typename Function, typename... Args>
void registerOne(const std::string& name, Function function, Args... args) {
    benchmark::RegisterBenchmark(name.c_str(), function, args...)->MinTime(minTime(0.1));
}

}  // namespace

void registerTextWorkload() {
    for (const FormatCase& testCase : kFormatCases) {
        const std::string prefix = std::string("text/") + testCase.name + "/";
        registerOne(prefix + "kestrel formatText", formatBenchmark, &testCase, formatKestrel);
        registerOne(prefix + "std::ostringstream", formatBenchmark, &testCase, formatWithStream);
        registerOne(prefix + "snprintf", formatBenchmark, &testCase, formatWithSnprintf);
    }
    registerOne("text/status line with +=/kestrel operator+=", appendBenchmark, appendCompound);
    registerOne("text/status line with +=/std::ostringstream", appendBenchmark, appendWithStream);
    registerOne("text/status line with +=/snprintf", appendBenchmark, appendWithSnprintf);
    registerOne("text/status line with +/kestrel operator+", appendBenchmark, appendChain);
    registerOne("text/status line with +/std::ostringstream", appendBenchmark, appendWithStream);
    registerOne("text/status line with +/snprintf", appendBenchmark, appendWithSnprintf);
}

}  // namespace kestrel_bench
