#include "depot_list.h"

#include "depot_format.h"
#include "depot_help.h"
#include "depot_report.h"

#include <korvaks/date.h>
#include <korvaks/strutl.h>
#include <korvaks/wild.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

namespace depot {

namespace {

struct Pattern {
    const char *text;
    const char *compiled;
    bool has_wildcards;
    bool is_matched;
};

// What is to be listed.
struct Selection {
    std::span<Pattern> patterns; // none: every name
    std::optional<time_t> since;
};

bool compile_pattern(stg_area *area, const char *text, Pattern &out_pattern)
{
    constexpr std::size_t reserve = 8; // for the NUL and what the compiler keeps free
    const std::size_t size = 2 * std::strlen(text) + reserve;
    auto *const compiled = static_cast<char *>(stg_alloc(area, size));
    if (compiled == nullptr)
        return false;
    int has_wildcards = 0;
    if (wild_compile_pattern(text, size, compiled, &has_wildcards) < 0) {
        report(IMSG_ERROR, msg_bad_pattern, shown(text));
        return false;
    }
    out_pattern = {text, compiled, has_wildcards != 0, false};
    return true;
}

bool read_selection(Job &job, Selection &out_selection)
{
    const CommandLine &line = job.line;
    if (line.has(flag_since)) {
        time_t since = 0;
        if (date_str_to_time(line.values[flag_since], 0, &since) != 0) {
            report(IMSG_ERROR, msg_bad_date, shown(line.values[flag_since]));
            return false;
        }
        out_selection.since = since;
    }
    auto *const patterns = static_cast<Pattern *>(stg_alloc(job.area, (line.word_count + 1) * sizeof(Pattern)));
    if (patterns == nullptr)
        return false;
    for (std::size_t i = 0; i < line.word_count; ++i)
        if (!compile_pattern(job.area, line.words[i], patterns[i]))
            return false;
    out_selection.patterns = {patterns, line.word_count};
    return true;
}

// Every pattern is tried, so that each one's own matches are known.
bool is_named(Selection &selection, const char *name)
{
    bool is_matched = selection.patterns.empty();
    for (Pattern &pattern : selection.patterns) {
        if (wild_match(pattern.compiled, name, 0) != 0)
            is_matched = pattern.is_matched = true;
    }
    return is_matched;
}

bool is_recent(const Selection &selection, const Entry &entry)
{
    return !selection.since || entry.stored.tv_sec >= *selection.since;
}

bool check_matches(const Selection &selection)
{
    bool is_done = true;
    for (const Pattern &pattern : selection.patterns) {
        if (!pattern.is_matched)
            report(IMSG_ERROR, pattern.has_wildcards ? msg_no_match : msg_no_entry, shown(pattern.text));
        is_done = is_done && pattern.is_matched;
    }
    return is_done;
}

struct Rows {
    Row *items = nullptr;
    std::size_t count = 0;
};

// False when an entry could not be read; the others are there.
bool read_rows(Job &job, Selection &selection, const Names &names, Rows &out_rows)
{
    out_rows.items = static_cast<Row *>(stg_alloc(job.area, (names.count + 1) * sizeof(Row)));
    if (out_rows.items == nullptr)
        return false;
    bool is_done = true;
    for (std::size_t i = 0; i < names.count; ++i) {
        Row row = {};
        if (!is_named(selection, names.items[i]))
            continue;
        if (!read_entry(job.depot, job.area, names.items[i], row.entry))
            is_done = false;
        else if (is_recent(selection, row.entry)) {
            row.name = stg_area_strdup(job.area, shown(names.items[i]));
            if (row.name == nullptr)
                return false;
            out_rows.items[out_rows.count++] = row;
        }
    }
    return is_done;
}

// The last line of a list in columns.
Row total_of(stg_area *area, const Rows &rows)
{
    Row total = {};
    total.name = stg_area_strdup(area, text_of(msg_list_total, static_cast<unsigned long>(rows.count)));
    for (std::size_t i = 0; i < rows.count; ++i) {
        total.entry.length += rows.items[i].entry.length;
        total.entry.block_length += rows.items[i].entry.block_length;
    }
    return total;
}

struct Widths {
    int name;
    int date;
};

Widths widths_of(const Rows &rows, const Row &total)
{
    const auto width = [](const char *text) { return static_cast<int>(imsg_strwidth(text)); };
    Widths widths = {std::max(width(total.name), width(text_of(msg_head_name))), width(text_of(msg_head_date))};
    for (std::size_t i = 0; i < rows.count; ++i) {
        widths.name = std::max(widths.name, width(rows.items[i].name));
        widths.date = std::max(widths.date, width_of_date(rows.items[i]));
    }
    return widths;
}

// Each line of a comment as one of the list.
void print_comment(std::string_view comment)
{
    while (!comment.empty()) {
        const std::size_t end = std::min(comment.find('\n'), comment.size());
        report(IMSG_OUTPUT, msg_list_comment, shown(comment.substr(0, end)));
        comment.remove_prefix(std::min(end + 1, comment.size()));
    }
}

// Headings, the entries and their sum, in columns that are as wide as needed.
bool print_columns(stg_area *area, const Rows &rows, bool is_long)
{
    const Row total = total_of(area, rows);
    if (total.name == nullptr)
        return false;
    const Widths widths = widths_of(rows, total);
    char sums[64];
    char line[128];
    (void)strutl_snprintf(sums, sizeof sums, "%%-%dn  %%14s  %%14z%s", widths.name, is_long ? "  %5r" : "");
    if (is_long)
        (void)strutl_snprintf(line, sizeof line, "%s  %%k  %%-%dd  %%u\n", sums, widths.date);
    else
        (void)strutl_snprintf(line, sizeof line, "%s  %%k\n", sums);
    bool is_done = print_headings(line);
    for (std::size_t i = 0; is_done && i < rows.count; ++i) {
        is_done = print_row(line, rows.items[i]);
        if (is_long)
            print_comment(rows.items[i].entry.comment);
    }
    (void)strutl_snprintf(line, sizeof line, "%s\n", sums);
    return is_done && print_row(line, total);
}

bool print_each(const char *format, const Rows &rows)
{
    bool is_done = true;
    for (std::size_t i = 0; is_done && i < rows.count; ++i)
        is_done = print_row(format, rows.items[i]);
    return is_done;
}

} // namespace

bool list_entries(Job &job)
{
    const CommandLine &line = job.line;
    Selection selection;
    if (!read_selection(job, selection) || (line.has(flag_format) && !check_format(line.values[flag_format])))
        return false;
    Names names;
    Rows rows;
    if (!open_depot_of(job, false) || !read_names(job.depot, job.area, names))
        return false;
    bool is_done = read_rows(job, selection, names, rows);
    is_done = check_matches(selection) && is_done;
    if (!is_done && rows.count == 0)
        return false; // what is wrong has been said, and nothing is left to list
    if (line.has(flag_format))
        return print_each(line.values[flag_format], rows) && is_done;
    if (line.has(flag_short))
        return print_each("%n\n", rows) && is_done;
    return print_columns(job.area, rows, line.has(flag_long)) && is_done;
}

void explain_list()
{
    explain_formats();
    report(IMSG_OUTPUT, msg_help_dates, date_usage_date_time());
}

} // namespace depot
