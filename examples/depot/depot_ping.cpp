// A call is made without a delivery check in its middle, and told of when all that it needs is given back: so a raise
// finds nothing to undo.
#include "depot_ping.h"

#include "depot_call.h"
#include "depot_host.h"
#include "depot_number.h"
#include "depot_program.h"
#include "depot_report.h"

#include <korvaks/auth.h>
#include <korvaks/clnt.h>
#include <korvaks/pfm.h>
#include <korvaks/sysutl.h>
#include <korvaks/vlthread.h>

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <time.h>
#include <unistd.h>

namespace depot {

namespace {

struct Question {
    std::uint32_t program = program_number;
    std::uint32_t version = program_version;
    std::uint32_t timeout_s = 5;
};

struct Transport {
    const char *name;
    int socket_type;
    Flag flag;
};
constexpr Transport transports[] = {{"tcp", SOCK_STREAM, flag_tcp}, {"udp", SOCK_DGRAM, flag_udp}};

// What came of one call.
struct Answer {
    clnt_stat status;
    rpc_err error;
    int failure; // errno, where that says why; else 0
    double ms;   // from the call to its reply
};

constexpr std::int64_t us_per_s = 1000000;

std::int64_t now_us()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * us_per_s + now.tv_nsec / 1000;
}

Answer failed(int failure)
{
    return {failure == ETIMEDOUT ? RPC_TIMEDOUT : RPC_SYSTEMERROR, {}, failure, 0};
}

// Waits for a connection that is being made; 0, or why there is none. A raise ends it, with EINTR; a stop does not.
int finish_connecting(int fd, std::int64_t deadline_us)
{
    int ready = 0;
    do {
        pollfd connecting = {fd, POLLOUT, 0};
        const std::int64_t left_ms = std::max<std::int64_t>((deadline_us - now_us()) / 1000, 0);
        ready = pfm_poll_inhibited(&connecting, 1, static_cast<int>(left_ms));
    } while (ready < 0 && errno == EINTR && vlthread_pending_raise(nullptr) == 0);
    if (ready <= 0)
        return ready == 0 ? ETIMEDOUT : errno;
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

// Datagram sockets are connected too: what the network says about them is told to none but those.
int connect_to(int fd, const Address &address, std::int64_t deadline_us)
{
    if (sysutl_set_socket_nonblocking(fd, 1) != 0)
        return errno;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address.bytes), address.size) == 0)
        return 0;
    return errno == EINPROGRESS ? finish_connecting(fd, deadline_us) : errno;
}

CLIENT *make_client(int fd, const Transport &transport, const Question &question)
{
    if (transport.socket_type == SOCK_STREAM)
        return ks_clnt_vc_create(fd, nullptr, question.program, question.version, 0, 0);
    CLIENT *const client = ks_clnt_dg_create(fd, nullptr, question.program, question.version, 0, 0);
    timeval again = {1, 0};
    if (client != nullptr)
        (void)clnt_control(client, CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&again));
    return client;
}

// The null procedure has no arguments and no results, so that nothing encodes and decodes them.
Answer call(CLIENT *client, std::int64_t deadline_us)
{
    const std::int64_t start_us = now_us();
    const std::int64_t left_us = std::max<std::int64_t>(deadline_us - start_us, 1);
    Answer answer = {};
    const timeval timeout = {left_us / us_per_s, left_us % us_per_s};
    answer.status = clnt_call(client, NULLPROC, nullptr, nullptr, nullptr, nullptr, timeout);
    answer.ms = static_cast<double>(now_us() - start_us) / 1000;
    clnt_geterr(client, &answer.error);
    if (answer.status == RPC_CANTSEND || answer.status == RPC_CANTRECV)
        answer.failure = answer.error.re_errno;
    return answer;
}

Answer ask_over(int fd, AUTH *auth, const Transport &transport, const Address &address, const Question &question)
{
    const std::int64_t deadline_us = now_us() + question.timeout_s * us_per_s;
    if (const int error = connect_to(fd, address, deadline_us); error != 0)
        return failed(error);
    if (transport.socket_type == SOCK_STREAM && sysutl_set_socket_nonblocking(fd, 0) != 0)
        return failed(errno);
    CLIENT *const client = make_client(fd, transport, question);
    if (client == nullptr)
        return failed(ks_rpc_get_createerr()->cf_error.re_errno);
    client->cl_auth = auth;
    const Answer answer = call(client, deadline_us);
    clnt_destroy(client);
    return answer;
}

Answer ask(const Transport &transport, const Address &address, const Question &question)
{
    AUTH *const auth = ks_authunix_create_default(); // before anything else is held: it may print a trace
    if (auth == nullptr)
        return failed(ENOMEM);
    const int fd = socket(address.bytes.ss_family, transport.socket_type | SOCK_CLOEXEC, 0);
    const Answer answer = fd < 0 ? failed(errno) : ask_over(fd, auth, transport, address, question);
    if (fd >= 0)
        (void)close(fd);
    ks_authunix_destroy(auth);
    return answer;
}

const char *text_of_failure(const Answer &answer)
{
    return answer.failure != 0 ? imsg_strerror(answer.failure) : ks_clnt_sperrno(answer.status);
}

// The line of one address.
void tell(const Transport &transport, const Address &address, const Question &question, const Answer &answer)
{
    const auto tell_that = [&](Msg number, auto... arguments) {
        report(IMSG_OUTPUT, number, transport.name, shown(address), arguments...);
    };
    const rpc_err &error = answer.error;
    if (answer.status == RPC_SUCCESS)
        tell_that(msg_ping_answered, answer.ms);
    else if (answer.status == RPC_TIMEDOUT)
        tell_that(msg_ping_timed_out);
    else if (answer.status == RPC_PROGUNAVAIL)
        tell_that(msg_ping_no_program, question.program);
    else if (answer.status == RPC_PROGVERSMISMATCH)
        tell_that(msg_ping_no_version, question.version, error.re_vers.low, error.re_vers.high);
    else if (answer.status == RPC_AUTHERROR)
        tell_that(msg_ping_denied, denial_text(error));
    else if (answer.failure == ECONNREFUSED)
        tell_that(msg_ping_refused);
    else
        tell_that(msg_ping_failed, text_of_failure(answer));
}

// Over all addresses; whether one of them gave the answer that it should.
bool ask_all(const Transport &transport, const Addresses &addresses, const Question &question)
{
    bool is_answered = false;
    for (std::size_t i = 0; i < addresses.count; ++i) {
        const Answer answer = ask(transport, addresses.items[i], question);
        tell(transport, addresses.items[i], question, answer);
        is_answered = is_answered || answer.status == RPC_SUCCESS;
    }
    return is_answered;
}

bool read_flag(const CommandLine &line, Flag flag, std::uint32_t least, std::uint32_t most, std::uint32_t &out_number)
{
    if (!line.has(flag) || read_number(line.values[flag], least, most, out_number))
        return true;
    report(IMSG_ERROR, msg_bad_number, shown(line.values[flag]), least, most);
    return false;
}

bool read_question(const CommandLine &line, Question &out_question)
{
    return read_flag(line, flag_program, 0, UINT32_MAX, out_question.program) &&
           read_flag(line, flag_program_version, 0, UINT32_MAX, out_question.version) &&
           read_flag(line, flag_timeout, 1, 3600, out_question.timeout_s);
}

} // namespace

Status ping(Job &job)
{
    const CommandLine &line = job.line;
    Question question;
    Addresses addresses;
    if (!read_question(line, question))
        return Status::misused;
    if (const Search search = find_addresses(job.area, line.words[0], addresses); search != Search::found)
        return search == Search::bad_word ? Status::misused : Status::failed;
    const bool is_one_asked = line.has(flag_tcp) || line.has(flag_udp);
    Status status = Status::done;
    for (const Transport &transport : transports) {
        if (is_one_asked && !line.has(transport.flag))
            continue;
        if (!ask_all(transport, addresses, question)) {
            report(IMSG_ERROR, msg_ping_unanswered, shown(line.words[0]), transport.name);
            status = Status::failed;
        }
    }
    return status;
}

} // namespace depot
