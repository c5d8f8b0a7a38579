// The recorded datagrams and frames in proto/vectors, compared with what the real service says. With VECTORS_RECORD=1
// in the environment the files are written anew: requests from their meanings, answers and events from the service.
#include <algorithm>
#include <fstream>
#include <iomanip>
#include <sstream>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "harness/discovery.h"
#include "harness/remote_client.h"

namespace pb = google::protobuf;
using Json = nlohmann::ordered_json;  // the files keep their order

static const std::string folder = VECTORS_FOLDER;
static constexpr char separator = '\x1c';
static const Texts reply_fields = {"model",      "firmwareVersion", "oemSerial", "loginPort",
                                   "secondPort", "wrappedKey",      "slotMark",  "oemManufacturer",
                                   "oemModel",   "amplifierName",   "serial",    "easySwapId"};

static std::string hex_of(const std::string &bytes) {
    std::ostringstream hex;
    for (const char byte : bytes) hex << std::hex << std::setfill('0') << std::setw(2) << (byte & 0xff);
    return hex.str();
}

static std::string bytes_of(const std::string &hex) {
    std::string bytes;
    for (size_t i = 0; i < hex.size(); i += 2) bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

// Frames and their meanings by the contract's text alone, without the generated code that the codec stands on.
struct Contract {
    pb::DescriptorPool pool;
    pb::DynamicMessageFactory factory{&pool};
    std::unique_ptr<pb::Message> message;

    Contract() {
        std::ifstream file(CONTRACT_DESCRIPTORS, std::ios::binary);
        pb::FileDescriptorSet set;
        if (!set.ParseFromIstream(&file)) throw Abandoned("no descriptors in " CONTRACT_DESCRIPTORS);
        message.reset(factory.GetPrototype(pool.BuildFile(set.file(0))->FindMessageTypeByName("Message"))->New());
    }
    std::string frame_of(const Json &meaning) {
        message->Clear();
        EXPECT_TRUE(pb::util::JsonStringToMessage(meaning.dump(), message.get()).ok()) << meaning;
        return message->SerializeAsString();
    }
    Json packet_of(const std::string &frame) {
        Json packet = {
            {"frames", Json::array({hex_of(frame)})}
        };
        std::string meaning;
        EXPECT_TRUE(message->ParseFromString(frame) && pb::util::MessageToJsonString(*message, &meaning).ok());
        if (!frame.empty()) packet["message"] = Json::parse(meaning);
        return packet;
    }
};

// Fields 1 to 12 count from the front. A client wrote the 13th, which may hold separators, and a reply may be cut in
// it.
static Json fields_of(const std::string &reply) {
    Json fields;
    std::istringstream in(reply.substr(std::size("@?D") - 1));
    for (size_t i = 0; i < 12; i++) {
        std::string field;
        std::getline(in, field, separator);
        fields[reply_fields[i]] = field;
    }
    if (!reply.ends_with('!')) return fields;
    const std::string rest(std::istreambuf_iterator<char>(in), {});
    const size_t last = rest.rfind(separator);
    fields["projectInformation"] = rest.substr(0, last);
    fields["extra"] = rest.substr(last + 1, rest.size() - last - 2);
    return fields;
}

// A key is wrapped differently each time: the recorded one stays when both hold the same secret.
static Json reply_packet(std::string reply, const std::string &known) {
    std::replace(reply.begin(), reply.end(), '|', separator);
    Json fields = fields_of(reply);
    const KeyPair key(folder + "test_key.pem");
    const std::string fresh = fields["wrappedKey"], secret = key.unwrap(fresh);
    if (fresh != known && secret == key.unwrap(known)) {
        reply.replace(reply.find(fresh), fresh.size(), known);
        fields["wrappedKey"] = known;
    }
    Json packet = {
        {"datagram", hex_of(reply)},
        {"fields",   fields       }
    };
    if (!fresh.empty()) packet["sharedKey"] = secret;
    return packet;
}

// Plays the recorded steps of one gateway in their order and replaces the recorded answers and events by the real ones.
struct Player {
    Gateway gateway;
    Contract contract{};
    std::map<std::string, RemoteClient> sessions{};

    void play(Json &step) {
        if (step.contains("device")) {
            const std::string method = step["device"]["method"], arguments = step["device"]["arguments"];
            gateway.control(method.c_str(), arguments.c_str());
        } else if (step.contains("socket")) {
            exchange_frames(step);
        } else {
            exchange_datagrams(step);
        }
        step.erase("events");
        for (auto &[id, client] : sessions)
            for (const wire::Message &event : client.events_so_far(gateway))
                step["events"][id].push_back(contract.packet_of(event.SerializeAsString()));
    }

    void exchange_datagrams(Json &step) {
        Json &request = step["request"];
        if (request.contains("fields")) {
            const std::string id = request["fields"]["id"], key = request["fields"]["publicKey"];
            request["datagram"] = hex_of(discovery_request(id, key));
        }
        const auto answer = Discovery().ask(bytes_of(request["datagram"]));
        const std::string known_key = step.value("/reply/fields/wrappedKey"_json_pointer, "");
        step["reply"] = answer ? reply_packet(*answer, known_key) : Json();
    }

    void exchange_frames(Json &step) {
        const std::string id = step["client"];
        Json &request = step["request"];
        if (request.contains("message")) request["frames"] = {hex_of(contract.frame_of(request["message"]))};
        Texts frames;
        for (const Json &frame : request["frames"]) frames.push_back(bytes_of(frame));
        RemoteClient client = sessions.contains(id) ? sessions.at(id) : RemoteClient(id);
        const Channel channel = step["socket"] == "command" ? Channel::command : Channel::authentication;
        const std::string answer = client.exchange(channel, frames);
        step["reply"] = contract.packet_of(answer);
        if (step.contains("ends")) sessions.erase(id);
        wire::Message reply;
        if (!reply.ParseFromString(answer) || !reply.reply().has_session()) return;
        client.connect_to({reply.reply().session().command_port(), reply.reply().session().event_port()});
        client.subscribe(gateway);
        sessions.insert_or_assign(id, client);
    }
};

TEST(Vectors, AreWhatTheServiceSays) {
    for (const char *name : {"discovery.json", "discovery_loopback.json", "session.json"}) {
        Json recorded = Json::parse(std::ifstream(folder + name)), played = recorded;
        Player player{Gateway({.environment = recorded["environment"].get<Environment>()})};
        for (Json &step : played["steps"]) player.play(step);
        if (getenv("VECTORS_RECORD") != nullptr) std::ofstream(folder + name) << played.dump(2) << '\n';
        else
            for (size_t i = 0; i < recorded["steps"].size(); i++)
                EXPECT_EQ(played["steps"][i].dump(2), recorded["steps"][i].dump(2));
    }
}
