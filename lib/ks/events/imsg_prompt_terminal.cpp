// Questions on the terminal: written to the standard error of the messages, answered on standard input.
#include "events/imsg_prompt_impl.h"

#include "kernel/kernel.h"
#include "messages/imsg_impl.h"

#include <korvaks/pfm.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace ks::prompt {

namespace {

// --- The terminal's echo ---

// Whoever has the turn asks for a password on the terminal of standard input.
constinit std::atomic<bool> hides_input{false};
// Its question, which is to be written with the echo off, and is then forgotten.
constinit const char *hidden_question = nullptr;
// The modes as they were found, while the echo is off. Whoever sets the mark back puts the modes back: the prompt, or
// an exit in another thread.
constinit termios modes_before{};
constinit std::atomic<pid_t> silenced_by{0};
constinit std::atomic<bool> is_ending{false};

// A process that was put in the background leaves the terminal to whoever has it now.
bool is_in_background()
{
    const pid_t foreground = tcgetpgrp(STDIN_FILENO);
    return foreground >= 0 && foreground != getpgrp();
}

void set_modes(const termios &modes)
{
    sigset_t stop;
    sigset_t before;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTTOU); // must not stop a process that has just lost the terminal
    (void)pthread_sigmask(SIG_BLOCK, &stop, &before);
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &modes); // the terminal may be gone; what was typed ahead is kept
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void silence_terminal()
{
    const bool is_wanted = hides_input.load(std::memory_order_relaxed) && imsg::turn_owner.load() == self();
    if (!is_wanted || is_ending.load() || silenced_by.load() != 0 || is_in_background() ||
        tcgetattr(STDIN_FILENO, &modes_before) != 0)
        return;
    silenced_by.store(getpid());
    termios silent = modes_before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    set_modes(silent);
}

void end_silence()
{
    const ErrnoSaver saver;
    pid_t process = getpid();
    if (silenced_by.compare_exchange_strong(process, 0) && !is_in_background())
        set_modes(modes_before);
}

void restore_terminal()
{
    if (imsg::turn_owner.load() == self())
        end_silence();
}

extern "C" void end_prompts_at_exit(void)
{
    is_ending.store(true);
    end_silence();
    imsg::drop_turns();
}

void watch_exit()
{
    static constinit std::atomic<bool> is_watched{false};
    if (!is_watched.exchange(true) && std::atexit(end_prompts_at_exit) != 0)
        is_watched.store(false);
}

// --- One conversation ---

struct Conversation {
    bool has_turn = false;
    bool hides_input = false;
    Scratch scratch;
    Text question; // what is built before it is written
};

void release(Conversation &talk)
{
    if (talk.hides_input) {
        hides_input.store(false, std::memory_order_relaxed);
        restore_terminal();
    }
    if (talk.has_turn)
        imsg::give_turn();
    release(talk.scratch);
    release(talk.question);
}

void flush_between(FILE *out, FILE *err)
{
    (void)std::fflush(out); // what it cannot write it says at the program's own next use
    (void)std::fflush(err);
}

struct Streams {
    FILE *out;
    FILE *err;
    bool interleave;
};

Streams real_streams()
{
    const IoLockGuard lock(ks_product_crit);
    return {imsg::state.real_out, imsg::state.real_err, imsg::state.interleave};
}

// Writes a part of the question, with the streams in step where that is wished.
void say(const char *text)
{
    const Streams streams = real_streams();
    if (streams.interleave)
        flush_between(streams.out, streams.err);
    (void)imsg_fputs(text, streams.err); // asked all the same: an answer may wait
    if (streams.interleave)
        flush_between(streams.out, streams.err);
}

void say_message(ImsgMsg message)
{
    char text[256];
    (void)imsg_snprintf(text, sizeof text, &_imsg_ks_msg_table, static_cast<int>(message)); // a longer one is cut
    say(text);
}

void say_default(const char *dflt)
{
    say(" [");
    say(dflt);
    say("] ");
}

// The question for a password, once.
void say_hidden_question()
{
    if (hides_input.load(std::memory_order_relaxed) && imsg::turn_owner.load() == self() && hidden_question != nullptr)
        say(std::exchange(hidden_question, nullptr));
}

template <typename Ask> void converse(Ask &&ask)
{
    Conversation talk;
    run_and_release(talk, [&](Conversation &held) {
        watch_exit();
        imsg::take_turn();
        held.has_turn = true;
        ask(held);
    });
}

// Stops until the process has the terminal, as reading from the background would. One that cannot be stopped goes on
// after a second, and its reading fails.
void wait_for_foreground()
{
    for (int tries = 0; tries < 20 && is_in_background(); ++tries) {
        (void)kill(0, SIGTTIN); // cannot fail for the own group
        (void)poll(nullptr, 0, 50);
    }
}

// --- Questions ---

// 0: not answered yet.
unsigned read_choice(Conversation &talk, const Choices &choices, unsigned mask, unsigned dflt)
{
    if (read_line(stdin, talk.scratch.line) != Read::line)
        return dflt;
    std::string_view answer = talk.scratch.line.view();
    answer.remove_prefix(std::min(answer.find_first_not_of(" \t"), answer.size()));
    if (answer.empty())
        return dflt;
    const unsigned meant = choices_meant(answer, choices, mask);
    const bool is_one = meant != 0 && (meant & (meant - 1)) == 0;
    if (is_one)
        return meant;
    if (meant != 0)
        say_message(imsg_msg_ambiguous);
    say_message(imsg_msg_answer_one_of);
    say(text_of_choices(mask, ", ").data());
    say("\n");
    return 0;
}

void say_block_question(Conversation &talk, const char *question, const char *dflt)
{
    (void)imsg_print(IMSG_OK, &_imsg_ks_msg_table, imsg_msg_default_follows); // what follows says it too
    say(dflt);
    say("\n");
    const std::size_t length = std::strlen(question);
    const bool has_feed = length > 0 && question[length - 1] == '\n';
    if (has_feed && append(talk.question, {question, length - 1}))
        say(talk.question.bytes);
    else
        say(question);
    say_message(imsg_msg_dot_accepts_default);
}

void say_text_question(Conversation &talk, const char *question, const char *dflt, bool multi_line)
{
    if (dflt != nullptr && multi_line) {
        say_block_question(talk, question, dflt);
        return;
    }
    say(question);
    if (dflt != nullptr)
        say_default(dflt);
}

// False when memory is exhausted.
bool say_list(Conversation &talk, const char *header, char *const *items, int item_count)
{
    char number[64];
    clear(talk.question);
    bool has_room = append(talk.question, header) && append(talk.question, "\n\n");
    for (int i = 0; has_room && i < item_count; ++i) {
        const int length = std::snprintf(number, sizeof number, "%d)\t", i + 1);
        has_room = append(talk.question, {number, static_cast<std::size_t>(length)}) &&
                   append(talk.question, items[i]) && append(talk.question, "\n");
    }
    (void)std::snprintf(number, sizeof number, "\nEnter a value from 1-%d, 0 to Cancel: \n", item_count);
    if (!has_room || !append(talk.question, number))
        return false;
    say(talk.question.bytes);
    return true;
}

int ask_list_in(Conversation &talk, const char *header, char *const *items, int item_count, bool multi,
                int **out_selection)
{
    Numbers numbers{};
    for (;;) {
        if (!say_list(talk, header, items, item_count) || read_line(stdin, talk.scratch.line) != Read::line)
            return IMSG_PROMPT_CANCELLED;
        const Selected selected = read_numbers(talk.scratch.line.view(), item_count, multi, numbers);
        if (selected == Selected::none)
            return IMSG_PROMPT_CANCELLED;
        if (selected == Selected::some)
            break;
        say("\n\n");
    }
    int *copy = copy_of_numbers(numbers);
    if (copy == nullptr)
        return IMSG_PROMPT_CANCELLED;
    *out_selection = copy;
    return IMSG_PROMPT_ANSWERED;
}

// An inhibited caller takes neither raise nor stop, and would be woken by one that waits for it again and again.
bool is_inhibited()
{
    return fault_block_of_caller()->pfm_inh_count != 0;
}

// A raise or a stop is held off for as long as the echo is off. True when the wait is over.
bool wait_inhibited(pollfd &entry)
{
    const bool is_woken = vlthread_equal(vlthread_attached_tid(), vlthread_self()) != 0;
    constexpr int look_again_ms = 250; // on threads that no raise and no stop wakes
    pfm_inhibit();
    silence_terminal();
    say_hidden_question();
    const int ready = pfm_poll_inhibited(&entry, 1, is_woken ? -1 : look_again_ms);
    const bool is_over = ready > 0 || (ready < 0 && errno != EINTR);
    restore_terminal();
    pfm_enable();
    return is_over;
}

} // namespace

void wait_for_input(FILE *in)
{
    pollfd entry{fileno(in), POLLIN, 0};
    if (entry.fd < 0)
        return; // a stream without a descriptor never waits
    if (is_inhibited()) {
        silence_terminal();
        say_hidden_question();
        (void)poll(&entry, 1, -1); // however it ends, the read tells
        return;
    }
    do {
        if (isatty(entry.fd) == 1)
            wait_for_foreground();
    } while (!wait_inhibited(entry));
}

unsigned ask_choice(const Choices &choices, const char *question, unsigned mask, unsigned dflt)
{
    unsigned choice = 0;
    settle(choices, mask, dflt);
    converse([&](Conversation &talk) {
        while (choice == 0) {
            say(question);
            say_default(text_of_choices(dflt, "").data());
            choice = read_choice(talk, choices, mask, dflt);
        }
    });
    return choice;
}

int ask_text(const char *question, const char *dflt, bool multi_line, char **out_answer)
{
    int result = IMSG_PROMPT_CANCELLED;
    converse([&](Conversation &talk) {
        say_text_question(talk, question, dflt, multi_line);
        result = get_input(stdin, dflt, multi_line, talk.scratch, out_answer);
    });
    return result;
}

int ask_password(const char *question, char **out_answer)
{
    int result = IMSG_PROMPT_CANCELLED;
    converse([&](Conversation &talk) {
        talk.hides_input = isatty(STDIN_FILENO) == 1;
        if (!talk.hides_input)
            say(question);
        hidden_question = talk.hides_input ? question : nullptr;
        hides_input.store(talk.hides_input, std::memory_order_relaxed);
        result = get_input(stdin, nullptr, false, talk.scratch, out_answer);
        say_hidden_question(); // where the answer was there before it
        if (talk.hides_input)
            say("\n");
    });
    return result;
}

int ask_list(const char *header, char *const *items, int item_count, bool multi, int **out_selection)
{
    int result = IMSG_PROMPT_CANCELLED;
    converse([&](Conversation &talk) { result = ask_list_in(talk, header, items, item_count, multi, out_selection); });
    return result;
}

} // namespace ks::prompt
