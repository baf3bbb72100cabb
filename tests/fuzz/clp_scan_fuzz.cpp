// Tables of flags and lines: what each step of a scan gives, against the rules written down plainly.
#include "fuzz/fuzz_support.h"

#include <korvaks/clp.h>

#include <algorithm>
#include <map>
#include <optional>

namespace {

constexpr std::uint32_t group_start = 0xfffffffe;
constexpr std::uint32_t group_end = 0xfffffffd;

struct Entry {
    std::string head; // before the '['
    std::string tail; // between the brackets
    std::string name;
    std::uint32_t value;
    std::uint32_t flags;
};

std::string take_letters(fuzz::Input &input)
{
    std::string letters;
    for (std::uint8_t byte = input.take_byte(); byte % 4 != 0; byte = static_cast<std::uint8_t>(byte / 4))
        letters += static_cast<char>('`' + byte % 4);
    return letters;
}

Entry take_entry(fuzz::Input &input)
{
    const std::uint8_t kind = input.take_byte();
    if (kind % 8 == 6)
        return {"", "", "Start Mutual Exclusion", group_start, 0};
    if (kind % 8 == 7)
        return {"", "", "End Mutual Exclusion", group_end, 0};
    Entry entry{"-" + take_letters(input), take_letters(input), "", kind % 8u, kind / 8u % 8u};
    entry.name = entry.head + (entry.tail.empty() ? "" : "[" + entry.tail + "]");
    return entry;
}

struct Model {
    std::vector<Entry> table;
    std::vector<std::string> line;
    std::size_t at = 0;
    bool is_ended = false;
    std::map<int, bool> used{};
    std::map<int, int> owner{}; // of a group

    bool is_alias(int i) const { return (entry(i).flags & CLP_ALIAS_FLAG) != 0; }
    const Entry &entry(int i) const { return table[static_cast<std::size_t>(i)]; }
    int count() const { return static_cast<int>(table.size()); }
    bool is_flag(int i, std::uint32_t value) const
    {
        return entry(i).value < group_end && !is_alias(i) && entry(i).value == value;
    }

    // The flag of an alias: backward to the start of a group, then forward to the end of one.
    std::optional<int> flag_of(int alias) const
    {
        for (int i = alias - 1; i >= 0 && entry(i).value != group_start; --i)
            if (is_flag(i, entry(alias).value))
                return i;
        for (int i = alias + 1; i < count() && entry(i).value != group_end; ++i)
            if (is_flag(i, entry(alias).value))
                return i;
        return std::nullopt;
    }

    // Misuse ends the process, so that such tables are not tried.
    bool is_misuse() const
    {
        bool is_open = false;
        for (int i = 0; i < count(); ++i) {
            const std::uint32_t value = entry(i).value;
            if ((value == group_start && is_open) || (value == group_end && !is_open))
                return true;
            is_open = value == group_start || (is_open && value != group_end);
            if (value < group_end && is_alias(i) && !flag_of(i))
                return true;
        }
        return false;
    }

    bool has_twins() const
    {
        for (int i = 0; i < count(); ++i)
            for (int j = i + 1; j < count(); ++j)
                if (is_flag(i, entry(j).value) && is_flag(j, entry(i).value))
                    return true;
        return false;
    }

    int next_flag(std::uint32_t &value)
    {
        value = UINT32_MAX;
        if (is_ended || at >= line.size())
            return 2;
        const std::string &word = line[at];
        is_ended = word == "--";
        if (is_ended)
            return ++at, 2;
        const auto match = std::find_if(table.begin(), table.end(), [&](const Entry &e) {
            return e.value < group_end && word.starts_with(e.head) && (e.head + e.tail).starts_with(word);
        });
        if (match == table.end())
            return word.starts_with("-") ? 1 : 2;
        const int found = static_cast<int>(match - table.begin());
        const int flag = is_alias(found) ? flag_of(found).value() : found;
        const bool may_repeat = (entry(flag).flags & CLP_REPEATABLE_FLAG) != 0;
        if (used[flag] && !may_repeat)
            return 1;
        int group = found;
        while (group >= 0 && entry(group).value < group_end)
            --group;
        if (group >= 0 && entry(group).value == group_start) {
            const auto [place, is_new] = owner.try_emplace(group, flag);
            if (!is_new && !(may_repeat && place->second == flag))
                return 1;
        }
        used[flag] = true;
        value = entry(flag).value;
        return ++at, 0;
    }
};

void check_scan(Model &model, clp_handle *hdl, fuzz::Input &input)
{
    while (input.left() > 0) {
        std::uint32_t value = 0;
        std::uint32_t expected_value = 0;
        char *word = nullptr;
        const std::size_t before = model.at;
        switch (input.take_byte() % 4) {
        case 0:
            FUZZ_REQUIRE(clp_get_next_flag_value(hdl, 0, &value) == model.next_flag(expected_value));
            FUZZ_REQUIRE(value == expected_value);
            break;
        case 1:
            FUZZ_REQUIRE(clp_get_next_arg(hdl, &word) == (before < model.line.size() ? 0 : 2));
            model.at += word != nullptr ? 1 : 0;
            FUZZ_REQUIRE(word == nullptr || model.line[before] == word);
            break;
        case 2:
            FUZZ_REQUIRE(clp_unget_arg(hdl) == (before > 0 ? 0 : 2));
            model.at -= before > 0 ? 1 : 0;
            break;
        default: // changes words and place: of it only what must hold of any list
            FUZZ_REQUIRE((clp_get_next_subarg(hdl, &word) == 0) == (word != nullptr));
            FUZZ_REQUIRE(word == nullptr || std::string(word).find(',') == std::string::npos);
            model.at = static_cast<std::size_t>(hdl->index);
            for (std::size_t i = 0; i < model.line.size(); ++i)
                model.line[i] = hdl->argv[i];
        }
        FUZZ_REQUIRE(static_cast<std::size_t>(hdl->index) == model.at && model.at <= model.line.size());
    }
}

} // namespace

FUZZ_TARGET(input)
{
    fuzz::suppress_messages();
    Model model;
    for (int left = input.take_byte() % 12; left > 0; --left)
        model.table.push_back(take_entry(input));
    for (int left = input.take_byte() % 12; left > 0; --left)
        model.line.push_back(input.take_byte() % 4 != 0 ? "-" + take_letters(input) : input.take_text());
    if (model.is_misuse())
        return;
    std::vector<clp_flag_desc> table;
    for (const Entry &entry : model.table)
        table.push_back({entry.name.c_str(), entry.value, entry.flags});
    table.push_back({nullptr, 0, 0});
    std::vector<std::string> words;
    for (std::string &word : model.line) {
        for (char &c : word)
            c = c == '[' || c == ']' ? ',' : c; // they only make the model's plain matching ambiguous
        words.push_back(word);
    }
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    clp_handle *hdl =
        clp_create_hdl_using_argv(static_cast<int>(argv.size()), argv.data(), table.data(), STG_AREA_NULL);
    FUZZ_REQUIRE((hdl == nullptr) == model.has_twins());
    if (hdl == nullptr)
        return;
    check_scan(model, hdl, input);
    clp_destroy_hdl(&hdl);
    FUZZ_REQUIRE(hdl == nullptr);
}
