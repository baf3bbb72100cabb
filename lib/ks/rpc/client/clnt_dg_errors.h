// What the network says of datagrams that did not arrive.
//
// A socket tells of it once, whichever datagram it was. So it is asked to keep what it was told (IP_RECVERR), with the
// start of the datagram, and an error of a call that is over is known from one of the call that waits.
#pragma once

#include <cstdint>

namespace ks::clnt {

// False for a socket that cannot, which is used as it is.
bool ask_for_network_errors(int fd);

// Whether it says of a datagram that it did not arrive.
bool is_network_error(int error);

// Takes what is kept, and gives the error of a datagram that begins with the word; 0 when there is none. Others are
// counted. `told` is what a socket has said that keeps nothing, else 0: what one that does has said may be of an error
// that was taken before.
int find_network_error(int fd, int told, uint32_t first_word, uint64_t &count);

// Takes what is kept and counts it; false when there was nothing.
bool take_network_errors(int fd, uint64_t &count);

} // namespace ks::clnt
