// Load for RPC servers, whatever they are made with: one thread, epoll, calls put together by hand. Every reply is
// looked at: transaction id, success, null verifier, results. It prints its options when it has no port.
#include "histogram.h"
#include "probe.h"
#include "wire.h"

#include <cerrno>
#include <cinttypes>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

using bench::Bytes;
using bench::now_ns;

constexpr uint64_t second_ns = 1'000'000'000;

[[noreturn]] void print_usage()
{
    std::puts("load --port N [--program N] [--version N]\n"
              "  --proc P        0 null, 1 echo, 2 sleep ms, 3 burn us; --arg N is the argument of those\n"
              "  --size N        bytes that are echoed\n"
              "  --conns N       connections, or sockets of datagrams\n"
              "  --depth N       calls under way on each\n"
              "  --secs S        how long is measured, after --warm S (0.3); or --calls N\n"
              "  --idle N        connections beside them that make one call each and are silent then\n"
              "  --drip N        connections that send a byte of a call every ten seconds\n"
              "  --deaf N        connections that make calls and never read\n"
              "  --accept 1      a connection makes one call and is reset, --conns of them at a time\n"
              "  --udp 1         datagrams\n"
              "  --unix 1        AUTH_UNIX credentials\n"
              "  --pid N         server, whose CPU time is measured\n"
              "  --csv 1         calls/s,p50,p90,p99,p99.9,max (us),calls,errors,CPU us/call");
    std::exit(2);
}

struct Options {
    std::map<std::string, double> values{};

    Options(int argc, char **argv)
    {
        static constexpr std::string_view known =
            " port program version proc arg size conns depth secs warm calls idle drip deaf accept udp unix pid csv ";
        for (int i = 1; i < argc; i += 2) {
            const std::string_view name = argv[i];
            if (i + 1 == argc || name.substr(0, 2) != "--" ||
                known.find(" " + std::string(name.substr(2)) + " ") == known.npos)
                print_usage();
            values[std::string(name.substr(2))] = std::strtod(argv[i + 1], nullptr);
        }
        constexpr unsigned slots_max = 4096; // the transaction id has so much room for them
        if (number("port") == 0 || number("conns", 1) == 0 || number("depth", 1) - 1 >= slots_max ||
            (is_set("accept") && is_set("udp")))
            print_usage();
    }

    double real(const char *name, double otherwise) const
    {
        const auto found = values.find(name);
        return found == values.end() ? otherwise : found->second;
    }
    unsigned number(const char *name, unsigned otherwise = 0) const
    {
        return static_cast<unsigned>(real(name, otherwise));
    }
    bool is_set(const char *name) const { return number(name) != 0; }
};

// The bytes of all calls, whose transaction ids only differ, and of their results.
struct Call {
    Bytes bytes{}; // with a record mark for connections
    Bytes results{};
    std::size_t xid_at = 0;

    Call(const Options &options, uint32_t procedure, uint32_t size)
    {
        const bool is_datagram = options.is_set("udp");
        if (!is_datagram)
            bench::add_words(bytes, {0});
        xid_at = bytes.size();
        bench::add_words(bytes, {0, 0, 2, options.number("program", PROBE_PROGRAM),
                                 options.number("version", PROBE_LOWEST), procedure});
        add_credential(options.is_set("unix"));
        const std::size_t arguments = bytes.size();
        add_arguments(procedure, size, options.number("arg"));
        if (procedure == PROBE_ECHO || procedure == PROBE_BURN)
            results.assign(bytes.begin() + static_cast<std::ptrdiff_t>(arguments), bytes.end());
        if (!is_datagram)
            bench::put_word(bytes.data(), static_cast<uint32_t>(bytes.size() - 4) | bench::last_fragment);
    }

  private:
    void add_credential(bool is_unix)
    {
        if (is_unix) {
            constexpr std::string_view machine = "load.example"; // of whole words
            const auto size = static_cast<uint32_t>(machine.size());
            bench::add_words(bytes, {1, 20 + size + 16, 1, size});
            bytes.insert(bytes.end(), machine.begin(), machine.end());
            bench::add_words(bytes, {1000, 100, 4, 1, 2, 3, 4});
        } else {
            bench::add_words(bytes, {0, 0});
        }
        bench::add_words(bytes, {0, 0});
    }

    void add_arguments(uint32_t procedure, uint32_t size, uint32_t argument)
    {
        if (procedure == PROBE_ECHO) {
            bench::add_words(bytes, {size});
            for (uint32_t i = 0; i < size; ++i)
                bytes.push_back(static_cast<uint8_t>(i * 7 + 1));
            bytes.resize(bytes.size() + bench::padded(size) - size);
        } else if (procedure == PROBE_SLEEP || procedure == PROBE_BURN || procedure == PROBE_BUMP) {
            bench::add_words(bytes, {argument});
        }
    }
};

struct Slot {
    uint32_t generation = 0;
    bool is_busy = false;
    uint64_t begun_ns = 0;
};

struct Connection {
    int fd = -1;
    Bytes in{};
    std::size_t in_size = 0;
    Bytes record{}; // fragments of a reply that is not whole yet
    Bytes out{};
    std::size_t sent = 0;
    std::vector<Slot> slots{};
    std::vector<unsigned> free_slots{};
    bool is_stuck = false; // waits for room to write
    bool is_connecting = false;
    uint64_t opened_ns = 0;

    void reset()
    {
        in_size = sent = 0;
        out.clear();
        record.clear();
        free_slots.clear();
        for (unsigned i = 0; i < slots.size(); ++i) {
            slots[i].is_busy = false;
            free_slots.push_back(i);
        }
    }
};

// CPU time of all threads of a process: comparable where the machine is shared.
uint64_t cpu_ns(unsigned pid)
{
    const std::string directory = "/proc/" + std::to_string(pid) + "/task";
    const std::unique_ptr<DIR, int (*)(DIR *)> threads(opendir(directory.c_str()), closedir);
    uint64_t sum = 0;
    for (const dirent *entry = threads ? readdir(threads.get()) : nullptr; entry != nullptr;
         entry = readdir(threads.get())) {
        const std::string path = directory + "/" + entry->d_name + "/schedstat";
        const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path.c_str(), "r"), std::fclose);
        uint64_t value = 0;
        if (entry->d_name[0] != '.' && file && std::fscanf(file.get(), "%" SCNu64, &value) == 1)
            sum += value;
    }
    return sum;
}

// Connections that only burden the server.
class Burden {
  public:
    Burden(const Options &options, const std::function<int(bool)> &open) : options_(options)
    {
        for (unsigned i = 0; i < options.number("idle"); ++i)
            idle_.push_back(open_idle(open(false), i));
        for (unsigned i = 0; i < options.number("drip"); ++i)
            dripping_.push_back(open(false));
        for (unsigned i = 0; i < options.number("deaf"); ++i)
            deaf_.push_back(open(true));
        tick(now_ns());
    }

    // Every now and then.
    void tick(uint64_t now)
    {
        constexpr uint64_t drip_every_ns = 10 * second_ns;
        for (const int fd : deaf_)
            while (send(fd, flood_.bytes.data(), flood_.bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
            }
        if (now < next_drip_ns_)
            return;
        next_drip_ns_ = now + drip_every_ns;
        for (const int fd : dripping_)
            (void)send(fd, null_.bytes.data() + dripped_ % null_.bytes.size(), 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        ++dripped_;
    }

  private:
    // One call proves that the server has taken it.
    int open_idle(int fd, unsigned number)
    {
        const timeval patience{10, 0};
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        uint8_t reply[4 + bench::reply_head_size];
        bench::put_word(null_.bytes.data() + null_.xid_at, number);
        if (send(fd, null_.bytes.data(), null_.bytes.size(), MSG_NOSIGNAL) < 0 ||
            recv(fd, reply, sizeof reply, MSG_WAITALL) != sizeof reply || bench::word_at(reply + 4) != number) {
            std::fprintf(stderr, "load: idle connection %u got no answer\n", number);
            std::exit(1);
        }
        return fd;
    }

    static constexpr uint32_t flood_size = 60000;

    const Options &options_;
    Call null_{options_, PROBE_NULL, 0};
    Call flood_{options_, PROBE_ECHO, flood_size};
    std::vector<int> idle_{};
    std::vector<int> dripping_{};
    std::vector<int> deaf_{};
    uint64_t next_drip_ns_ = 0;
    std::size_t dripped_ = 0;
};

class Load {
  public:
    explicit Load(const Options &options) : options_(options), connections_(options.number("conns", 1))
    {
        for (Connection &connection : connections_) {
            connection.slots.resize(is_accepting_ ? 1 : options_.number("depth", 1));
            connection.reset();
            if (is_accepting_)
                continue;
            connection.fd = open_socket(false);
            (void)fcntl(connection.fd, F_SETFL, O_NONBLOCK);
            watch(connection, EPOLL_CTL_ADD, false);
        }
    }

    void run();
    int report() const;

  private:
    int open_socket(bool is_nonblocking) const;
    void watch(Connection &connection, int operation, bool for_room) const;
    bool may_send() const { return calls_max_ == 0 || sent_ < calls_max_; }
    void fill(Connection &connection);
    void flush(Connection &connection);
    bool receive(Connection &connection);
    void receive_datagrams(Connection &connection);
    void take_records(Connection &connection);
    void take_reply(Connection &connection, const uint8_t *reply, std::size_t size, uint64_t now);
    void reopen(Connection &connection);
    void finish_connect(Connection &connection);
    void serve(const epoll_event &event);
    void drop(Connection &connection);
    void begin_measuring(uint64_t now);
    void give_up_lost_datagrams(uint64_t now);
    bool has_open_connection() const;
    uint64_t server_cpu_ns() const { return options_.is_set("pid") ? cpu_ns(options_.number("pid")) : 0; }

    const Options &options_;
    const bool is_datagram_ = options_.is_set("udp");
    const bool is_accepting_ = options_.is_set("accept");
    const uint64_t calls_max_ = options_.number("calls");
    Call call_{options_, options_.number("proc"), options_.number("size")};
    int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    Burden burden_{options_, [this](bool is_nonblocking) { return open_socket(is_nonblocking); }};
    std::vector<Connection> connections_;
    bench::Histogram latencies_{};
    uint64_t sent_ = 0;
    uint64_t done_ = 0;
    uint64_t errors_ = 0;
    bool is_measuring_ = false;
    // When measuring began, and when it ended.
    uint64_t from_ns_ = 0;
    uint64_t from_done_ = 0;
    uint64_t from_cpu_ns_ = 0;
    uint64_t to_ns_ = 0;
    uint64_t to_cpu_ns_ = 0;
};

int Load::open_socket(bool is_nonblocking) const
{
    const int fd = socket(AF_INET, (is_datagram_ ? SOCK_DGRAM : SOCK_STREAM) | (is_nonblocking ? SOCK_NONBLOCK : 0), 0);
    if (is_datagram_)
        bench::set_option(fd, SOL_SOCKET, SO_RCVBUF, 4 << 20);
    else
        bench::set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    const auto port = static_cast<uint16_t>(options_.number("port"));
    const sockaddr_in server{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    if (connect(fd, reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0 && errno != EINPROGRESS)
        bench::fail("connect");
    return fd;
}

void Load::watch(Connection &connection, int operation, bool for_room) const
{
    epoll_event event{};
    event.events = EPOLLIN | (for_room ? EPOLLOUT : 0u);
    event.data.ptr = &connection;
    if (epoll_ctl(epoll_, operation, connection.fd, &event) != 0)
        bench::fail("epoll_ctl");
    connection.is_stuck = for_room;
}

// Issues calls until as many as there should be are under way.
void Load::fill(Connection &connection)
{
    const uint64_t now = now_ns();
    while (!connection.free_slots.empty() && may_send()) {
        const unsigned index = connection.free_slots.back();
        connection.free_slots.pop_back();
        Slot &slot = connection.slots[index];
        slot.generation = (slot.generation + 1) & 0xfffff;
        slot.is_busy = true;
        slot.begun_ns = is_accepting_ ? connection.opened_ns : now;
        bench::put_word(call_.bytes.data() + call_.xid_at, slot.generation << 12 | index);
        ++sent_;
        if (!is_datagram_)
            connection.out.insert(connection.out.end(), call_.bytes.begin(), call_.bytes.end());
        else if (send(connection.fd, call_.bytes.data(), call_.bytes.size(), 0) < 0 && errno != EAGAIN &&
                 errno != ECONNREFUSED)
            bench::fail("send");
    }
    if (!is_datagram_)
        flush(connection);
}

void Load::flush(Connection &connection)
{
    while (connection.sent < connection.out.size()) {
        const ssize_t count = send(connection.fd, connection.out.data() + connection.sent,
                                   connection.out.size() - connection.sent, MSG_NOSIGNAL);
        if (count >= 0) {
            connection.sent += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            if (!connection.is_stuck)
                watch(connection, EPOLL_CTL_MOD, true);
            return;
        } else if (errno != EINTR) {
            bench::fail("send");
        }
    }
    connection.out.clear();
    connection.sent = 0;
    if (connection.is_stuck)
        watch(connection, EPOLL_CTL_MOD, false);
}

void Load::take_reply(Connection &connection, const uint8_t *reply, std::size_t size, uint64_t now)
{
    const uint32_t xid = size >= 4 ? bench::word_at(reply) : 0;
    const unsigned index = xid & 0xfff;
    if (size < 4 || index >= connection.slots.size() || !connection.slots[index].is_busy ||
        connection.slots[index].generation != xid >> 12) {
        ++errors_;
        return;
    }
    connection.slots[index].is_busy = false;
    connection.free_slots.push_back(index);
    ++done_;
    static constexpr uint8_t success[bench::reply_head_size] = {0, 0, 0, 0, 0, 0, 0, 1};
    const Bytes &results = call_.results;
    const bool is_good = size == sizeof success + results.size() &&
                         std::memcmp(reply + 4, success + 4, sizeof success - 4) == 0 &&
                         (results.empty() || std::memcmp(reply + sizeof success, results.data(), results.size()) == 0);
    if (!is_good)
        ++errors_;
    else if (is_measuring_)
        latencies_.add(now - connection.slots[index].begun_ns);
}

void Load::receive_datagrams(Connection &connection)
{
    uint8_t reply[65536];
    ssize_t size;
    while ((size = recv(connection.fd, reply, sizeof reply, MSG_DONTWAIT)) >= 0)
        take_reply(connection, reply, static_cast<std::size_t>(size), now_ns());
    if (errno == ECONNREFUSED)
        ++errors_;
}

void Load::take_records(Connection &connection)
{
    const uint64_t now = now_ns();
    std::size_t at = 0;
    while (connection.in_size - at >= 4) {
        const uint32_t mark = bench::word_at(&connection.in[at]);
        const std::size_t size = mark & ~bench::last_fragment;
        const bool is_last = (mark & bench::last_fragment) != 0;
        if (connection.in_size - at - 4 < size)
            break;
        const uint8_t *fragment = connection.in.data() + at + 4;
        at += 4 + size;
        if (is_last && connection.record.empty()) {
            take_reply(connection, fragment, size, now);
            continue;
        }
        connection.record.insert(connection.record.end(), fragment, fragment + size);
        if (is_last) {
            take_reply(connection, connection.record.data(), connection.record.size(), now);
            connection.record.clear();
        }
    }
    connection.in_size -= at;
    std::memmove(connection.in.data(), connection.in.data() + at, connection.in_size);
}

// False: the connection is over.
bool Load::receive(Connection &connection)
{
    constexpr std::size_t read_size = 65536;
    if (is_datagram_) {
        receive_datagrams(connection);
        return true;
    }
    if (connection.in.size() - connection.in_size < read_size)
        connection.in.resize(connection.in_size + std::max(2 * read_size, connection.in_size));
    const ssize_t count =
        recv(connection.fd, connection.in.data() + connection.in_size, connection.in.size() - connection.in_size, 0);
    if (count <= 0)
        return count < 0 && (errno == EAGAIN || errno == EINTR);
    connection.in_size += static_cast<std::size_t>(count);
    take_records(connection);
    return true;
}

// A connection for one call. It is reset, or local ports would run out.
void Load::reopen(Connection &connection)
{
    if (connection.fd >= 0) {
        const linger reset{1, 0};
        (void)setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(connection.fd);
        connection.fd = -1;
    }
    if (!may_send())
        return;
    connection.reset();
    connection.opened_ns = now_ns();
    connection.fd = open_socket(true);
    connection.is_connecting = true;
    watch(connection, EPOLL_CTL_ADD, true);
}

void Load::finish_connect(Connection &connection)
{
    int error = 0;
    socklen_t size = sizeof error;
    (void)getsockopt(connection.fd, SOL_SOCKET, SO_ERROR, &error, &size);
    connection.is_connecting = false;
    if (error != 0) {
        ++errors_;
        reopen(connection);
        return;
    }
    watch(connection, EPOLL_CTL_MOD, false);
    fill(connection);
}

void Load::drop(Connection &connection)
{
    ++errors_;
    if (is_accepting_) {
        reopen(connection);
        return;
    }
    std::fprintf(stderr, "load: the server has closed a connection\n");
    close(connection.fd);
    connection.fd = -1;
}

void Load::serve(const epoll_event &event)
{
    Connection &connection = *static_cast<Connection *>(event.data.ptr);
    if (connection.is_connecting) {
        finish_connect(connection);
        return;
    }
    if ((event.events & ~uint32_t{EPOLLOUT}) != 0) {
        const uint64_t done_before = done_;
        if (!receive(connection)) {
            drop(connection);
            return;
        }
        if (!is_accepting_)
            fill(connection);
        else if (done_ != done_before)
            reopen(connection);
    }
    if (connection.fd >= 0 && !connection.is_connecting && (event.events & EPOLLOUT) != 0)
        flush(connection);
}

void Load::begin_measuring(uint64_t now)
{
    is_measuring_ = true;
    from_done_ = done_;
    from_ns_ = now;
    from_cpu_ns_ = server_cpu_ns();
}

// A datagram may be lost.
void Load::give_up_lost_datagrams(uint64_t now)
{
    for (Connection &connection : connections_) {
        for (unsigned i = 0; i < connection.slots.size(); ++i)
            if (connection.slots[i].is_busy && now > connection.slots[i].begun_ns + second_ns) {
                connection.slots[i].is_busy = false;
                connection.free_slots.push_back(i);
                ++errors_;
            }
        fill(connection);
    }
}

bool Load::has_open_connection() const
{
    return std::any_of(connections_.begin(), connections_.end(), [](const Connection &each) { return each.fd >= 0; });
}

void Load::run()
{
    constexpr uint64_t tick_ns = second_ns / 5;
    const uint64_t begun = now_ns();
    const uint64_t measured_from =
        calls_max_ != 0 ? begun : begun + static_cast<uint64_t>(options_.real("warm", 0.3) * double{second_ns});
    const uint64_t end = calls_max_ != 0
                             ? UINT64_MAX
                             : measured_from + static_cast<uint64_t>(options_.real("secs", 2) * double{second_ns});
    uint64_t next_tick = begun + tick_ns;
    std::vector<epoll_event> events(1024);
    if (calls_max_ != 0)
        begin_measuring(begun);
    for (Connection &connection : connections_)
        is_accepting_ ? reopen(connection) : fill(connection);
    for (uint64_t now = begun; now < end && (calls_max_ == 0 || done_ + errors_ < calls_max_); now = now_ns()) {
        if (!is_measuring_ && now >= measured_from)
            begin_measuring(now);
        const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 100);
        for (int i = 0; i < count; ++i)
            serve(events[static_cast<std::size_t>(i)]);
        if (now < next_tick)
            continue;
        next_tick = now + tick_ns;
        burden_.tick(now);
        if (is_datagram_)
            give_up_lost_datagrams(now);
        if (!has_open_connection())
            break;
    }
    to_ns_ = now_ns();
    to_cpu_ns_ = server_cpu_ns();
}

int Load::report() const
{
    const uint64_t calls = done_ - from_done_;
    const double rate = static_cast<double>(calls) * double{second_ns} / static_cast<double>(to_ns_ - from_ns_);
    const double cpu_us =
        calls == 0 ? 0 : static_cast<double>(to_cpu_ns_ - from_cpu_ns_) / 1e3 / static_cast<double>(calls);
    std::printf(options_.is_set("csv") ? "%.0f,%.1f,%.1f,%.1f,%.1f,%.1f,%" PRIu64 ",%" PRIu64 ",%.3f\n"
                                       : "%.0f calls/s, p50 %.1f, p90 %.1f, p99 %.1f, p99.9 %.1f, max %.1f us, %" PRIu64
                                         " calls, %" PRIu64 " errors, server %.3f us CPU each\n",
                rate, latencies_.quantile(.5) / 1e3, latencies_.quantile(.9) / 1e3, latencies_.quantile(.99) / 1e3,
                latencies_.quantile(.999) / 1e3, latencies_.max() / 1e3, calls, errors_, cpu_us);
    return errors_ == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options(argc, argv);
    (void)bench::raise_descriptor_limit();
    Load load(options);
    load.run();
    return load.report();
}
