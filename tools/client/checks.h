/* checks.h - the single checks of kesto-client check, in the order in which a visit takes them.
 *
 * A check returns what was seen, throws a Failure when the device does not hold to the contract or does not answer, and
 * NotChecked when it cannot be made. It leaves ids and values as it found them, but for what it records in the visit.
 */
#ifndef CLIENT_CHECKS_H
#define CLIENT_CHECKS_H

#include "discovery.h"
#include "visit.h"

/* The device's two users. */
constexpr const char *restricted_user = "quillmont", *unrestricted_user = "root";

struct NotChecked {
    std::string why;
};

/* A client id of the check's own: whatever happened under it, it is logged out in the end. */
struct PassingId {
    Account account;

    explicit PassingId(Account own);
    ~PassingId();
    PassingId(const PassingId &) = delete;
    PassingId &operator=(const PassingId &) = delete;
};

struct Visit {
    const Options &options;
    std::string address;
    PassingId own;
    KeyPair pair;
    std::optional<Device> device;
    std::string static_text;
    std::optional<Session> session;  // monitored, under the own id
    std::string serial;
    std::optional<std::string> project_info;  // as found; set while it may be changed
};

/* What most checks are made of. */
void require(bool holds, const std::string &otherwise);
void expect_status(const wire::Reply &reply, wire::Status status, const std::string &what);
Session &session_of(Visit &visit); /* throws NotChecked when there is none */
PassingId further_id(const Visit &visit, const char *suffix);

/* Discovery, the login port and logging in. */
std::string check_discovery(Visit &visit);
std::string check_wrapped_key(Visit &visit);
std::string check_discovery_again(Visit &visit);
std::string check_discovery_without_key(Visit &visit);
std::string check_garbage(Visit &visit);
std::string check_several_frames(Visit &visit);
std::string check_unsupported(Visit &visit);
std::string check_static_discovery(Visit &visit);
std::string check_log_in(Visit &visit);
std::string check_renewal(Visit &visit);
std::string check_wrong_password(Visit &visit);
std::string check_other_user(Visit &visit);
std::string check_shown_discovery(Visit &visit);
std::string check_echoed_fields(Visit &visit);

/* What a session is for, and its end. */
std::string check_read(Visit &visit);
std::string check_recursive_read(Visit &visit);
std::string check_missing_key(Visit &visit);
std::string check_masks(Visit &visit);
std::string check_write(Visit &visit);
std::string check_change_count(Visit &visit);
std::string check_forbidden_write(Visit &visit);
std::string check_multi_write(Visit &visit);
std::string check_forbidden_multi_write(Visit &visit);
std::string check_echo(Visit &visit);
std::string check_put_back(Visit &visit);
std::string check_log_out(Visit &visit);
std::string check_vanish(Visit &visit);

#endif
