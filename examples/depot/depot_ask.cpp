#include "depot_ask.h"

#include "depot_report.h"

#include <korvaks/imsg_prompt.h>

#include <unistd.h>

namespace depot {

bool may_ask()
{
    return isatty(STDIN_FILENO) == 1;
}

bool confirm(Msg question, const char *name)
{
    if (!may_ask())
        return true;
    constexpr unsigned answers = IMSG_CHOICE_YES | IMSG_CHOICE_NO;
    const char *const text = text_of(question, shown(name));
    return imsg_prompt_yes_no(IMSG_WARNING, text, answers, IMSG_CHOICE_NO) == IMSG_CHOICE_YES;
}

} // namespace depot
