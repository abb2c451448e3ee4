// Throughput of the JSON library on generated inputs: decode, compact encode
// and indented encode, as MB/s of the input document, best of repeated runs.
// Times are CPU time of the benchmark thread (page faults included), so that
// other work on a shared machine does not distort the figures.
// Also: heap held by each decoded tree, linear scaling on ~1 MB and ~10 MB
// arrays of numbers, and a 1,000,000-deep document.
//
// Usage: json_bench
#include "json.h"

#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Inputs

// Deterministic pseudo-random numbers (64-bit LCG, high bits).
struct Random {
    uint64_t state;
    uint32_t next() {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<uint32_t>(state >> 33);
    }
    uint32_t below(uint32_t bound) { return next() % bound; }
};

void appendf(std::string *out, const char *format, ...) {
    char buffer[128];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    out->append(buffer, static_cast<size_t>(length));
}

// Numbers of every shape the grammar allows.
void append_number(std::string *out, Random *random) {
    switch (random->below(8)) {
    case 0: appendf(out, "%u", random->below(1000)); break;
    case 1: appendf(out, "-%u", random->next()); break;
    case 2: appendf(out, "%u.%02u", random->below(100000), random->below(100)); break;
    case 3: appendf(out, "-0.%06u", random->below(1000000)); break;
    case 4: appendf(out, "%u.%ue%d", random->below(10), random->below(1000), 250 - static_cast<int>(random->below(500))); break;
    case 5: appendf(out, "%uE+%u", 1 + random->below(9), random->below(20)); break;
    case 6: appendf(out, "%.17g", static_cast<double>(random->next()) / 7.0); break;
    default: appendf(out, "%u%09u", 1 + random->below(999999), random->below(1000000000)); break;
    }
}

const char *const kWords[] = {
    "alpha", "Z\\u00fcrich", "caf\xC3\xA9", "\\u20ac 12", "line\\nbreak", "tab\\there", "quote \\\"q\\\"",
    "back\\\\slash", "\xE6\x9D\xB1\xE4\xBA\xAC", "\\ud83d\\ude00 ok", "\xF0\x9F\x9A\x80 launch",
    "plain words here", "S\xC3\xA3o Paulo", "\\/path\\/to", "\xD0\x9C\xD0\xBE\xD1\x81\xD0\xBA\xD0\xB2\xD0\xB0",
};

void append_words(std::string *out, Random *random, unsigned count) {
    out->push_back('"');
    for (unsigned i = 0; i < count; ++i) {
        if (i != 0)
            out->push_back(' ');
        out->append(kWords[random->below(sizeof kWords / sizeof kWords[0])]);
    }
    out->push_back('"');
}

void append_record(std::string *out, Random *random, unsigned id) {
    appendf(out, "{\"id\":%u,\"active\":%s,\"name\":", id, random->below(2) ? "true" : "false");
    append_words(out, random, 2 + random->below(3));
    out->append(",\"balance\":");
    append_number(out, random);
    out->append(",\"note\":null,\"tags\":[");
    for (unsigned i = 0, n = random->below(5); i < n; ++i) {
        if (i != 0)
            out->push_back(',');
        append_words(out, random, 1);
    }
    out->append("],\"geo\":{\"lat\":");
    append_number(out, random);
    out->append(", \"lon\":");
    append_number(out, random);
    out->append("},\"scores\":[");
    for (unsigned i = 0, n = 1 + random->below(6); i < n; ++i) {
        if (i != 0)
            out->append(", ");
        append_number(out, random);
    }
    out->append("],\"about\":");
    append_words(out, random, 5 + random->below(20));
    out->append(",\"friends\":[");
    for (unsigned i = 0, n = random->below(3); i < n; ++i) {
        appendf(out, "%s{\"id\":%u,\"name\":", i ? "," : "", random->below(100000));
        append_words(out, random, 2);
        out->push_back('}');
    }
    out->append("]}");
}

std::string realistic_document(size_t target) {
    Random random{20231114};
    std::string out = "[\n";
    for (unsigned id = 0; out.size() < target; ++id) {
        if (id != 0)
            out.append(",\n");
        append_record(&out, &random, id);
    }
    out.append("\n]\n");
    return out;
}

// Many chains nested `depth` deep (each well below a thousand levels).
std::string deep_document(size_t target, unsigned depth) {
    Random random{7};
    std::string out = "[";
    for (unsigned chain = 0; out.size() < target; ++chain) {
        if (chain != 0)
            out.push_back(',');
        for (unsigned level = 0; level < depth; ++level)
            out.append(level % 2 ? "{\"k\":" : "[");
        appendf(&out, "%u", random.below(1000));
        for (unsigned level = depth; level-- > 0;)
            out.append(level % 2 ? "}" : "]");
    }
    out.push_back(']');
    return out;
}

// Shaped like the daemon's status document: eight slots with full log rings,
// built through the library and written with tab indentation as the daemon does.
std::string status_document() {
    Random random{3};
    auto log_line = [&](unsigned slot, unsigned i) {
        char line[200];
        snprintf(line, sizeof line,
                 "[SLOT%u:INFO]1700000%03u.%06u 2023-11-14 22:%02u:%02u transitions_ready.cpp:%u "
                 "Transitioned from %u to SLOT_READY\n",
                 slot, i, random.below(1000000), i % 60, random.below(60), 80 + random.below(40),
                 random.below(20));
        return json_mkstring(line);
    };
    JsonNode *root = json_mkobject();
    json_append_member(root, "chassis", json_mkstring("KTR9600"));
    JsonNode *log = json_mkarray();
    for (unsigned i = 0; i < 24; ++i)
        json_append_element(log, log_line(random.below(8) + 1, i));
    json_append_member(root, "Log", log);
    for (unsigned slot = 1; slot <= 8; ++slot) {
        JsonNode *object = json_mkobject();
        json_append_member(object, "SLOT", json_mknumber(slot));
        json_append_member(object, "STATE", json_mkstring("SLOT_SYNCED"));
        json_append_member(object, "Exp Event", json_mkstring("EV_NONE"));
        json_append_member(object, "Card Type", json_mkstring("16x100G QSFP28"));
        json_append_member(object, "Provisioned", json_mkbool(slot % 3 != 0));
        json_append_member(object, "Disabled", json_mkbool(slot == 5));
        json_append_member(object, "Serial No", json_mkstring("MT2347X01234"));
        JsonNode *up = json_mkobject();
        json_append_member(up, "Hours", json_mknumber(random.below(10000)));
        json_append_member(up, "Minutes", json_mknumber(random.below(60)));
        json_append_member(up, "Seconds", json_mknumber(random.below(60)));
        json_append_member(object, "Up Time", up);
        JsonNode *slot_log = json_mkarray();
        for (unsigned i = 0; i < 24; ++i)
            json_append_element(slot_log, log_line(slot, i));
        json_append_member(object, "Log", slot_log);
        char name[16];
        snprintf(name, sizeof name, "slot%u", slot);
        json_append_member(root, name, object);
    }
    char *text = json_stringify(root, "\t");
    std::string result = text;
    free(text);
    json_delete(root);
    return result;
}

std::string number_array(size_t target) {
    Random random{11};
    std::string out = "[";
    while (out.size() < target) {
        if (out.size() > 1)
            out.push_back(',');
        append_number(&out, &random);
    }
    out.push_back(']');
    return out;
}

// ---------------------------------------------------------------------------
// Timing

double thread_seconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Best time per operation. Each sample runs a batch of operations long enough
// (>= 2 ms) for the clock to be exact, keeping every result; the results are
// released after the clock stops. At least 5 samples and 0.3 s in total.
template <class Make, class Drop>
double best_seconds(Make make, Drop drop) {
    using Item = decltype(make());
    std::vector<Item> items;
    auto sample = [&](size_t batch) {
        items.clear();
        items.reserve(batch);
        double start = thread_seconds();
        for (size_t i = 0; i < batch; ++i)
            items.push_back(make());
        double seconds = thread_seconds() - start;
        for (Item item : items)
            drop(item);
        return seconds;
    };
    double once = sample(1);
    size_t batch = once >= 0.002 ? 1 : static_cast<size_t>(0.002 / std::max(once, 1e-7)) + 1;
    double best = 1e9;
    double total = 0;
    for (int reps = 0; reps < 5 || total < 0.3; ++reps) {
        double seconds = sample(batch);
        best = std::min(best, seconds / static_cast<double>(batch));
        total += seconds;
    }
    return best;
}

size_t heap_in_use() {
    return mallinfo2().uordblks;
}

struct Result {
    double decode = 0, encode = 0, indent = 0;  // seconds
    size_t heap = 0;                            // bytes held by the decoded tree
    bool ok = false;
};

Result measure_ours(const std::string &text) {
    Result r;
    r.decode = best_seconds([&] { return json_decode(text.c_str()); }, json_delete);
    size_t before = heap_in_use();
    JsonNode *tree = json_decode(text.c_str());
    r.heap = heap_in_use() - before;
    if (tree == nullptr)
        return r;
    r.encode = best_seconds([&] { return json_encode(tree); }, free);
    r.indent = best_seconds([&] { return json_stringify(tree, "\t"); }, free);
    json_delete(tree);
    r.ok = true;
    return r;
}

// ---------------------------------------------------------------------------
// Report

double mb_per_s(size_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0;
}

void print_row(const char *name, const char *op, size_t bytes, double seconds) {
    if (seconds > 0)
        printf("%-18s %-7s %9.1f\n", name, op, mb_per_s(bytes, seconds));
    else
        printf("%-18s %-7s %9s\n", name, op, "-");
}

void measure(const std::string &name, const std::string &text) {
    Result r = measure_ours(text);
    if (!r.ok) {
        printf("%-18s the decoder refused the document\n", name.c_str());
        return;
    }
    char label[64];
    size_t bytes = text.size();
    print_row(name.c_str(), "decode", bytes, r.decode);
    snprintf(label, sizeof label, "  (%.2f MB)", static_cast<double>(bytes) / 1e6);
    print_row(label, "compact", bytes, r.encode);
    print_row("", "indent", bytes, r.indent);
    printf("%-18s %-7s %7.1f MB\n", "", "heap", static_cast<double>(r.heap) / 1e6);
}

void scaling() {
    printf("\nLinear scaling, arrays of numbers of every shape (ns per input byte):\n");
    printf("%-10s %10s %9s %9s %9s\n", "size", "bytes", "decode", "compact", "indent");
    double first[3] = {0, 0, 0};
    for (size_t target : {size_t{1} << 20, size_t{10} << 20}) {
        std::string text = number_array(target);
        Result r = measure_ours(text);
        double per_byte[3] = {r.decode, r.encode, r.indent};
        for (double &v : per_byte)
            v = v * 1e9 / static_cast<double>(text.size());
        printf("%-10s %10zu", target == (size_t{1} << 20) ? "~1 MB" : "~10 MB", text.size());
        for (double v : per_byte)
            printf(" %9.2f", v);
        printf("\n");
        if (first[0] == 0) {
            std::copy(per_byte, per_byte + 3, first);
            continue;
        }
        printf("%-10s %10s", "10MB/1MB", "");
        for (int i = 0; i < 3; ++i)
            printf(" %8.2fx", first[i] > 0 ? per_byte[i] / first[i] : 0);
        printf("\n");
    }
}

void very_deep() {
    const size_t depth = 1000000;
    std::string text = std::string(depth, '[') + std::string(depth, ']');
    double decode = best_seconds([&] { return json_decode(text.c_str()); }, json_delete);
    printf("\n1,000,000-deep [[...]] (%zu bytes): decoded in %.1f ms\n", text.size(), decode * 1e3);
}

}  // namespace

int main() {
    printf("MB/s = input document size / best time\n");
    printf("%-18s %-7s %9s\n", "document", "op", "MB/s");
    measure("generated", realistic_document(4u << 20));
    measure("deep (400 levels)", deep_document(2u << 20, 400));
    measure("status document", status_document());
    scaling();
    very_deep();
    return 0;
}
