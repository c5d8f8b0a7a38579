/* device.h - the device's part in the load: it reports changes over D-Bus, which the clients then hear. One thread;
 * failures are thrown as std::runtime_error. */
#pragma once

#include <span>
#include <string>
#include <vector>

#include "clients.h"

/* Reports one change and waits until the report is acknowledged. */
void device_report(const std::string &value);

/* Reports until all of these hear it: a subscription takes effect only some time after its socket has connected.
 * Nothing is left to be received afterwards. */
void device_settle(const std::vector<Client> &clients);

/* Receives `count` events at each of the clients. */
void clients_hear(std::span<const Client> clients, int count);
