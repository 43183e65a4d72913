// A socket of NETLINK_NETFILTER and requests on it.  The kernel works a request off within the send, so its
// answer is there when the send returns.
//
// Threads: a socket belongs to one thread at a time.
#pragma once
#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace am {

// Open, bound, not blocking; null with errno(3) set when the kernel has no such sockets.  The caller closes
// it.
mnl_socket *openNetfilterSocket();

// Starts a request in a zero-filled buffer: netlink header (subsystem and message of
// linux/netfilter/nfnetlink.h) and family header.
nlmsghdr *putRequest(void *buffer, uint8_t subsystem, uint8_t message, uint8_t family, uint16_t resource = 0);

// Sends one request and looks for its failure, which is answered even where the request asks for no
// acknowledgement: 0, or a negative error number of the kernel's or of the send; -ENOBUFS when other messages
// had filled the socket and the answer may be among those lost.  Messages that wait on the socket are thrown
// away, all of them or, with NLM_F_ACK, those before the answer.
int sendRequest(const mnl_socket *socket, nlmsghdr *request);

// Calls visit(message, context) for every message of the answer to a dump.  0, or a negative error number;
// -EINTR when the table changed meanwhile so that entries may be missing or come twice.  `buffer` is for
// receiving, 16 kB or more.
int runDump(const mnl_socket *socket, nlmsghdr *request, std::span<char> buffer,
            void (*visit)(const nlmsghdr *message, void *context), void *context);

// The error number, zero or negative, that a message of type NLMSG_ERROR begins with, or NLMSG_DONE, where it
// tells why a dump was cut short.
int errorOf(const nlmsghdr *message);

}  // namespace am
