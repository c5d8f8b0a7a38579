/* resources.h - what is left to open. CZMQ and GDBus abort the process when they run out in the middle of a call, so
 * each such call is preceded by a look, and takes its ordinary failure path when there is too little. Any thread. */
#ifndef ACCESS_NET_RESOURCES_H
#define ACCESS_NET_RESOURCES_H

/* Lets the process have as many descriptors as the system allows it. Once, at the start of the network side. */
void resources_raise_descriptor_limit();

/* The same for ZeroMQ sockets; starts CZMQ, and so needs descriptors. Once, before the first socket. */
void resources_raise_socket_limit();
/* Enough descriptors for one more ZeroMQ socket or monitor, with a reserve for connections that come in meanwhile. */
bool resources_for_socket();

/* Enough descriptors for one synchronous D-Bus call. */
bool resources_for_bus_call();

/* A thread can be started. */
bool resources_for_thread();

#endif
