/*
 * node.h - the interface of libeasnode (C11 and C++17): measures and steers a compute node.
 *
 * Works on any Linux node: the processors' events, the memory controllers, the energy counters and
 * the frequencies are those that the kernel offers there.
 *
 * Conventions of every function here
 *   Return value   0 on success, else a negative code of enum easnode_return_code; no other value.
 *                  Nothing is printed and nothing is thrown.
 *   Records        A record that may grow in later releases begins with its own size, which the
 *                  caller sets before each call; the library reads and fills no more than that.
 *                  Texts in records are arrays that end in NUL: nothing has to be freed.
 *   Handles        Made by an open function, given back by its close function; closing a null one
 *                  does nothing. An output handle is null after a failure.
 *   Threads        One handle belongs to one thread at a time; different handles may be used in
 *                  different threads at the same time. The library starts no thread. A thread that
 *                  is cancelled inside a call finishes the call.
 *   Privileges     Those that the kernel asks for, per source; see security.md of the guides. What
 *                  is denied is a missing figure with its reason, not a failure.
 *   Side effects   None on the node, unless a function says so.
 */
#ifndef EAS_NODE_H
#define EAS_NODE_H

#include "node/codes.h"
#include "node/frequency.h"
#include "node/meter.h"
#include "node/record.h"
#include "node/topology.h"

#endif /* EAS_NODE_H */
