// A depot that a server has: every operation is a call of the depot's program, over one connection that is kept.
#pragma once

#include "depot_host.h"
#include "depot_program.h"
#include "depot_store.h"
#include "depot_wire.h"

#include <korvaks/clnt.h>
#include <korvaks/hash.h>
#include <korvaks/stg.h>

#include <cstdint>

namespace depot {

struct GetAnswer;

class RemoteStore final : public Store {
  public:
    // The server's addresses are tried in order when the first call is made. They and its name, which is for messages,
    // live as long as the area.
    // Over datagrams no content goes, and no list of all names.
    void open(stg_area *area, const char *server, const Addresses &addresses, bool is_datagram);

    bool look_up(const char *name, bool &out_is_there) override;
    bool read_names(stg_area *area, Names &out_names, Names &out_others) override;
    bool read(stg_area *area, const char *name, Entry &out_entry) override;
    bool put(const char *path, const Label &label) override;
    bool get(const char *name, const char *target, bool replace) override;
    bool verify(const char *name) override;
    bool remove(const char *name) override;
    void close() override;

    // What the server counts. Needs no depot.
    bool read_counters(Counters &out_counters);

    // Whom it takes its caller for. Needs none either.
    bool read_identity(Identity &out_identity);

    // What is known of an entry. Its header is told with its name, so that none is asked for twice.
    struct Known {
        Entry entry;
        const Failure *failure; // why there is none, or NULL
    };

  private:
    CLIENT *make_client(int fd, const Address &address) const;
    bool is_answering();
    int connect_to(const Address &address);
    bool connect();
    void disconnect();
    template <typename Question, typename Answer>
    bool call(Procedure procedure, bool_t (*xdr_question)(XDR *, Question *), Question &question,
              bool_t (*xdr_answer)(XDR *, Answer *), Answer &answer, long patience_s = 30);
    template <typename Question, typename Answer>
    bool call_when_granted(Procedure procedure, bool_t (*xdr_question)(XDR *, Question *), Question &question,
                           bool_t (*xdr_answer)(XDR *, Answer *), Answer &answer);
    bool number_call(CallNumber &out_number);
    bool call_about(Procedure procedure, const char *name);
    bool list(stg_area *area, const char *name, Names &out_names, Names &out_others);
    long patience_for(const char *name);
    bool put_pieces(PutFinish &out_finish);
    bool put_source(const char *path, const Label &label);
    bool get_content(GetQuestion &question, GetAnswer &answer);
    bool get_entry(const char *name, const char *target, bool replace);
    void cancel_put();
    bool ended(bool is_done);

    stg_area *area_ = nullptr;
    const char *server_ = nullptr;
    Addresses addresses_;
    bool is_datagram_ = false;
    CallNumber last_call_ = {}; // of those that run once
    CLIENT *client_ = nullptr;
    AUTH *auth_ = nullptr;
    bool is_out_of_reach_ = false; // which has been reported
    std::int64_t used_ms_ = 0;
    hash_ht *known_ = nullptr;
    std::uint64_t put_handle_ = 0; // 0: nothing is being put
    Transfer transfer_;
};

} // namespace depot
