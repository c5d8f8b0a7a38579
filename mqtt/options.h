/* options.h - what the program is told: by a file, by options of the same names, which go before it. */
#pragma once

#include <string>
#include <vector>

struct Options {
    std::string broker = "127.0.0.1";  // host or address
    int port = 0;                      // 0: the usual one, see broker_port
    std::string broker_user, broker_password;
    bool tls = false;
    std::string ca_file, certificate, private_key;  // PEM

    std::string id;  // of the bridge: one topic level; the host's name unless told otherwise
    std::string user = "quillmont", password;
    bool read_only = false;
    int longest_pause_s = 30;  // between two attempts to reach the broker or a device
    int read_every_s = 600;    // the whole device, without a sign that anything has changed
    std::vector<std::string> addresses, interfaces, serials, branches;
};

int broker_port(const Options &options);
bool uses_tls(const Options &options);
std::string kesto_client_id(const Options &options); /* at the devices; the broker sees names that begin so */

/* Reads the file and the command line. A line of the file that makes no sense is said and left out; a wrong command
 * line, or a file that cannot be read, ends the program with status 64; so do --help and --version, with 0. */
Options read_options(int argc, char **argv);
