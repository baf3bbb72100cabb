/* What the server tirpc_peer serves: the numbers of its program. */
#ifndef TIRPC_PEER_H
#define TIRPC_PEER_H

#define TIRPC_PEER_PROGRAM 0x2000aa01u
#define TIRPC_PEER_LOWEST 2u /* versions */
#define TIRPC_PEER_HIGHEST 3u

enum tirpc_peer_procedure {
    TIRPC_PEER_NULL = 0,
    TIRPC_PEER_ECHO = 1,  /* opaque<> ECHO(opaque<>) */
    TIRPC_PEER_SLEEP = 2, /* void SLEEP(unsigned milliseconds); nothing else is served meanwhile */
    TIRPC_PEER_WHO =
        3, /* what the credential says: unsigned flavour; string machine<255>; unsigned uid, gid, groups<16> */
    TIRPC_PEER_WEAK = 4, /* refused: the credential is too weak */
    TIRPC_PEER_FAIL = 5, /* a system error */
    TIRPC_PEER_BUMP = 6, /* BUMP(unsigned n) adds n to a counter and has no reply */
    TIRPC_PEER_COUNT = 7 /* unsigned COUNT(void): that counter */
};

#endif
