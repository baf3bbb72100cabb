#include "depot_list.h"

#include "depot_format.h"
#include "depot_report.h"

#include <korvaks/date.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

namespace depot {

namespace {

// False for a text that is no date, which has been reported.
bool read_since(const CommandLine &line, std::optional<time_t> &out_since)
{
    if (!line.has(flag_since))
        return true;
    time_t since = 0;
    if (date_str_to_time(line.values[flag_since], 0, &since) != 0)
        return fail(msg_bad_date, line.values[flag_since]);
    out_since = since;
    return true;
}

struct Rows {
    Row *items = nullptr;
    std::size_t count = 0;
};

// A name as the list shows it: a program gets it as it is.
const char *listed(const Job &job, const char *name)
{
    const bool is_raw = job.line.has(flag_nul) || is_output_to_program();
    return is_raw ? name : stg_area_strdup(job.area, shown(name));
}

// False when an entry could not be read; the others are there.
bool read_rows(Job &job, std::optional<time_t> since, const Names &names, Rows &out_rows)
{
    out_rows.items = static_cast<Row *>(stg_alloc(job.area, (names.count + 1) * sizeof(Row)));
    if (out_rows.items == nullptr)
        return false;
    bool is_done = true;
    for (std::size_t i = 0; i < names.count; ++i) {
        Row row = {};
        if (!job.store->read(job.area, names.items[i], row.entry)) {
            is_done = false;
        } else if (!since || row.entry.stored.tv_sec >= *since) {
            row.name = listed(job, names.items[i]);
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
        total.entry.stored_length += rows.items[i].entry.stored_length;
    }
    return total;
}

struct Widths {
    int name;
    int date;
};

// A name that needs more columns stands out in its own row alone.
constexpr int name_columns_max = 40;

Widths widths_of(const Rows &rows, const Row &total)
{
    const auto width = [](const char *text) { return static_cast<int>(imsg_strwidth(text)); };
    Widths widths = {std::max(width(total.name), width(text_of(msg_head_name))), width(text_of(msg_head_date))};
    for (std::size_t i = 0; i < rows.count; ++i) {
        if (const int columns = width(rows.items[i].name); columns <= name_columns_max)
            widths.name = std::max(widths.name, columns);
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

// Whatever a name holds, it holds no NUL.
bool print_names(const Rows &rows)
{
    for (std::size_t i = 0; i < rows.count; ++i)
        put_out({rows.items[i].name, std::strlen(rows.items[i].name) + 1});
    return is_output_complete();
}

bool print(Job &job, const Rows &rows)
{
    const CommandLine &line = job.line;
    if (line.has(flag_format))
        return print_each(line.values[flag_format], rows);
    if (line.has(flag_nul))
        return print_names(rows);
    if (line.has(flag_short))
        return print_each("%n\n", rows);
    return print_columns(job.area, rows, line.has(flag_long));
}

} // namespace

Status list_entries(Job &job)
{
    const CommandLine &line = job.line;
    std::optional<time_t> since;
    if (!read_since(line, since) || (line.has(flag_format) && !check_format(line.values[flag_format])))
        return Status::misused;
    Names names;
    Rows rows;
    const Status found = find_entries(job, names);
    if (found == Status::misused)
        return found;
    bool is_done = found == Status::done;
    is_done = read_rows(job, since, names, rows) && is_done;
    if (!is_done && rows.count == 0)
        return Status::failed; // what is wrong has been said, and nothing is left to list
    return print(job, rows) && is_done ? Status::done : Status::failed;
}

void explain_list()
{
    explain_formats();
    report(IMSG_OUTPUT, msg_help_dates, date_usage_date_time());
}

} // namespace depot
