#include "depot_help.h"

#include <korvaks/strutl.h>

#include <algorithm>

namespace depot {

namespace {

constexpr clp_flag_desc group_start = CLP_START_MUTUAL_EXCLUSION;
constexpr clp_flag_desc group_end = CLP_END_MUTUAL_EXCLUSION;

// A line that grows; what does not fit is cut off.
class Line {
  public:
    template <typename... Texts> void add(Texts... texts) { ((void)strutl_cpy_and_advance(&end_, &left_, texts), ...); }

    const char *text() const { return text_; }

  private:
    char text_[1024] = "";
    char *end_ = text_;
    std::size_t left_ = sizeof text_;
};

bool is_flag(const clp_flag_desc &entry)
{
    return entry.value < flag_count && (entry.flags & CLP_ALIAS_FLAG) == 0;
}

void add_argument(Line &line, const clp_flag_desc &flag)
{
    if (const Msg argument = text_of_flag(flag.value).argument; argument != msg_none)
        line.add(" ", text_of(argument));
}

// "-o[ut] FILE"
void add_name(Line &line, const clp_flag_desc &flag)
{
    line.add(flag.name);
    add_argument(line, flag);
}

// "[-c[omment] TEXT]... [-r[eplace] | -nr[eplace]]": in a group, "|" stands for the brackets.
void add_flags(Line &line, const clp_flag_desc *flags)
{
    bool is_in_group = false;
    const char *before = " [";
    for (const clp_flag_desc *flag = flags; flag->name != nullptr; ++flag) {
        if (flag->value == group_start.value) {
            is_in_group = true;
        } else if (flag->value == group_end.value) {
            is_in_group = false;
            before = " [";
            line.add("]");
        } else if (is_flag(*flag)) {
            line.add(before);
            add_name(line, *flag);
            if (!is_in_group)
                line.add("]");
            if ((flag->flags & CLP_REPEATABLE_FLAG) != 0)
                line.add("...");
            before = is_in_group ? " | " : " [";
        }
    }
}

int width_of(const char *text)
{
    return static_cast<int>(imsg_strwidth(text));
}

int width_of_names(const clp_flag_desc *flags)
{
    int width = 0;
    for (const clp_flag_desc *flag = flags; flag->name != nullptr; ++flag) {
        if (!is_flag(*flag))
            continue;
        Line names;
        add_name(names, *flag);
        width = std::max(width, width_of(names.text()));
    }
    return width;
}

void show_flags(const clp_flag_desc *flags)
{
    const int width = width_of_names(flags);
    report(IMSG_OUTPUT, msg_help_flags);
    for (const clp_flag_desc *flag = flags; flag->name != nullptr; ++flag) {
        if (!is_flag(*flag))
            continue;
        Line names;
        add_name(names, *flag);
        report(IMSG_OUTPUT, msg_help_row, padded(names.text(), width), text_of(text_of_flag(flag->value).meaning));
    }
}

void show_commands()
{
    int width = 0;
    for (const Command &command : all_commands())
        width = std::max(width, width_of(command.name));
    report(IMSG_OUTPUT, msg_help_commands);
    for (const Command &command : all_commands())
        report(IMSG_OUTPUT, msg_help_row, padded(command.name, width), text_of(command.summary));
}

} // namespace

void show_usage(int kind, const Command *command)
{
    Line line;
    line.add("veldepot");
    if (command != nullptr)
        line.add(" ", command->name);
    add_flags(line, command == nullptr ? general_flags() : command->flags);
    const Msg arguments = command == nullptr ? msg_argument_command : command->arguments;
    if (arguments != msg_none)
        line.add(" ", text_of(arguments));
    report(kind, msg_usage, line.text());
}

void show_help(const Command *command)
{
    show_usage(IMSG_OUTPUT, command);
    if (command == nullptr) {
        report(IMSG_OUTPUT, msg_help_about);
        show_commands();
    } else {
        report(IMSG_OUTPUT, command->notes);
    }
    show_flags(command == nullptr ? general_flags() : command->flags);
    report(IMSG_OUTPUT, msg_help_notation);
    if (command == nullptr)
        report(IMSG_OUTPUT, msg_help_general);
    else if (command->explain != nullptr)
        command->explain();
}

const char *command_list()
{
    Line line;
    const char *before = "";
    for (const Command &command : all_commands()) {
        line.add(before, unbracketed(command.name));
        before = ", ";
    }
    return text_of(msg_text, line.text());
}

} // namespace depot
