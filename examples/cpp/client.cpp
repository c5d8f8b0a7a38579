// A small remote control client on libkesto-client: discovers a device, logs in, reads, writes, watches, logs out.
//     client --address ADDRESS [--seconds N]
#include <iostream>
#include <map>
#include <unistd.h>

#include <kesto-client/blocking.h>
#include <kesto-client/browser.h>

static constexpr const char *serial_key = "/Device/Config/Hardware/Model/Serial";
static constexpr const char *project_key = "/Device/Config/PROJECT_INFO";

static void show(const kesto::Published &published) {
    if (const auto *alarm = std::get_if<kesto::Alarm>(&published))
        std::cout << "heard alarm of channel " << alarm->channel << ": " << alarm->value << '\n';
    if (const auto *change = std::get_if<kesto::Change>(&published))
        std::cout << "heard change of " << change->key << " to " << change->value << '\n';
    if (const auto *echo = std::get_if<kesto::Reply>(&published))
        std::cout << "heard a write of " << echo->client_id << '\n';
}

static kesto::Reply ask(kesto::BlockingClient &client, kesto::Operation operation) {
    const kesto::Answer answer = client.ask(std::move(operation));
    if (!answer) throw std::runtime_error(answer.sentence);
    return answer.reply;
}

static std::string read(kesto::BlockingClient &client, const char *key) {
    return std::get<kesto::Value>(ask(client, kesto::Read{key}).result).text;
}

static void visit(const std::string &address, int seconds) {
    const std::string id = "cpp-example-" + std::to_string(getpid());
    const kesto::KeyPair pair;
    const auto device = kesto::ask_device(address, id, pair.public_pem(), 5000).device;
    if (!device) throw std::runtime_error("no device answers at " + address);
    const kesto::Endpoint login = kesto::login_endpoint(*device);
    std::cout << "discovered " << device->model << ", serial " << device->serial << ", at " << endpoint_text(login)
              << "; shared key " << pair.unwrap(device->wrapped_key).value_or("missing") << '\n';

    const kesto::ClientOptions options{.login = login, .client_id = id, .user = "quillmont", .password = "tandrivel"};
    kesto::BlockingClient client(options, {.notice = {}, .published = show, .value = {}});
    const std::string serial = read(client, serial_key), before = read(client, project_key);
    std::cout << "logged in: command port " << client.ports().command << ", event port " << client.ports().event << '\n'
              << "read " << serial_key << " = " << serial << '\n';
    ask(client, kesto::Write{project_key, "written by the C++ example"});
    std::cout << "wrote " << project_key << " = " << read(client, project_key) << '\n';
    ask(client, kesto::Write{project_key, before});
    client.wait(seconds * 1000);
}

int main(int argc, char **argv) try {
    std::map<std::string, std::string> given = {
        {"--address", "" },
        {"--seconds", "5"}
    };
    for (int i = 1; i + 1 < argc; i += 2) given[argv[i]] = argv[i + 1];
    visit(given["--address"], std::stoi(given["--seconds"]));
    std::cout << "logged out\n";
} catch (const std::exception &failure) {
    std::cerr << "client: " << failure.what() << '\n';
    return 1;
}
