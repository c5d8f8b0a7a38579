#include "judgement.h"

#include <algorithm>

#include "discovery.h"

namespace kesto {

static constexpr size_t asked_pairs_most = 64;  // all clients wait while one is served

static std::string name_of(const Operation &operation) {
    struct Namer {
        std::string operator()(std::monostate) { return "nothing"; }
        std::string operator()(const Login &) { return "log in"; }
        std::string operator()(const Read &read) {
            return (read.flags & read_this_key_alone) != 0 ? "read " + read.key : "read everything below " + read.key;
        }
        std::string operator()(const Write &write) { return "write " + write.key; }
        std::string operator()(const MultiWrite &) { return "multi-write"; }
        std::string operator()(const Authorize &question) { return "may " + question.key; }
        std::string operator()(Discovery) { return "static discovery"; }
        std::string operator()(ChangeCount) { return "changes"; }
    };
    return std::visit(Namer{}, operation);
}

static Answer refused_by_data_service(const Operation &operation, Reply reply, const std::string &detail) {
    return {Outcome::refused,
            name_of(operation) + ": the user's rights allow it, but the device's data service " + detail,
            std::move(reply)};
}

static Answer judge_read(const Operation &operation, Reply reply) {
    if (reply.status == Status::ok && std::holds_alternative<Value>(reply.result))
        return {Outcome::done, "", std::move(reply)};
    return refused_by_data_service(operation, std::move(reply), "gave no value; there may be no such key");
}

static Answer judge_write(const Operation &operation, Reply reply) {
    const WriteResult *result = std::get_if<WriteResult>(&reply.result);
    const int number = result != nullptr ? result->result : 0;
    if (reply.status == Status::ok && number >= 0) return {Outcome::done, "", std::move(reply)};
    return refused_by_data_service(operation, std::move(reply),
                                   "did not accept it (result " + std::to_string(number) + ")");
}

static Answer judge_multi_write(const Operation &operation, Reply reply) {
    if (reply.status != Status::ok) return refused_by_data_service(operation, std::move(reply), "did not accept it");
    const MultiWriteResult *result = std::get_if<MultiWriteResult>(&reply.result);
    const size_t asked_count = std::get<MultiWrite>(operation).pairs.size();
    const size_t told_count = result != nullptr ? result->results.size() : 0;
    if (told_count < asked_count)
        return {Outcome::partly, "multi-write: the device does not say what became of each key", std::move(reply)};
    for (size_t i = 0; i < std::min(result->pairs.size(), told_count); ++i) {
        if (result->results[i] == pair_was_written) continue;
        const std::string sentence = "multi-write: " + result->pairs[i].key + " was not written: " + result->results[i];
        return {Outcome::partly, sentence, std::move(reply)};
    }
    return {Outcome::done, "", std::move(reply)};
}

Answer judge(const Operation &operation, Reply reply) {
    if (reply.status == Status::unsupported)
        return {Outcome::unsupported, name_of(operation) + ": the device does not know this request", std::move(reply)};
    if (std::holds_alternative<Read>(operation)) return judge_read(operation, std::move(reply));
    if (std::holds_alternative<Write>(operation)) return judge_write(operation, std::move(reply));
    if (std::holds_alternative<MultiWrite>(operation)) return judge_multi_write(operation, std::move(reply));
    if (reply.status == Status::ok) return {Outcome::done, "", std::move(reply)};
    return {Outcome::refused, name_of(operation) + ": the device did not say why", std::move(reply)};
}

std::vector<Authorize> questions_after(const Operation &operation, const Answer &answer) {
    std::vector<Authorize> questions;
    if (answer.outcome != Outcome::refused) return questions;
    if (const Read *read = std::get_if<Read>(&operation)) {
        questions.push_back({operation_read, read->key, (read->flags & read_this_key_alone) == 0});
    } else if (const Write *write = std::get_if<Write>(&operation)) {
        const bool rights_decide = (write->type & write_is_lock) == 0;
        if (rights_decide) questions.push_back({operation_write, write->key, false});
    } else if (const MultiWrite *several = std::get_if<MultiWrite>(&operation)) {
        for (size_t i = 0; i < std::min(several->pairs.size(), asked_pairs_most); ++i)
            questions.push_back({operation_write, several->pairs[i].key, false});
    }
    return questions;
}

Answer answer_denied(Answer answer, const Operation &operation, const Authorize &denied, const std::string &user) {
    answer.outcome = Outcome::not_allowed;
    answer.sentence = name_of(operation) + ": user " + user + " may not ";
    if (denied.operation == operation_read) answer.sentence += denied.recursive ? "read this recursively" : "read this";
    else if (std::holds_alternative<Write>(operation)) answer.sentence += "write this key";
    else answer.sentence += "write " + denied.key + ", so nothing was written";
    return answer;
}

bool is_plausible(const Ports &ports) {
    const auto is_port = [](int number) { return number > 0 && number <= last_port; };
    return is_port(ports.command) && is_port(ports.event);
}

Answer judge_login(const Who &who, bool with_static_discovery, Answer answer) {
    if (!answer) return answer;
    const Ports *ports = answer.get<Ports>();
    if (answer.reply.status == Status::ok && ports != nullptr && is_plausible(*ports)) return answer;
    answer.outcome = Outcome::refused;
    answer.sentence = "log in as " + who.user + ": wrong user name or password, a session of another user under id " +
                      who.client_id + (with_static_discovery ? ", another device's discovery text" : "") +
                      ", or no free port on the device";
    return answer;
}

Answer judge_log_out(Answer answer) {
    if (!answer || answer.reply.status == Status::ok) return answer;
    answer.outcome = Outcome::refused;
    answer.sentence = "log out: the device did not say why";
    return answer;
}

}  // namespace kesto
