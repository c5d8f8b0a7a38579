// The table of connections in any order of calls. An input is a row of steps, each: a byte for the call and a byte for
// the connection or the port; for bytes that come in, a byte of length and the bytes; else, where there is a number of
// bytes, a byte that is it in units of 64 KiB.
#include <array>
#include <string_view>

#include "net/transport/connection_table.h"
#include "target.h"

// Descriptors that the process does not have, so that a shutdown of them reaches nobody.
static constexpr int first_descriptor = 500;
static constexpr size_t capacity = 600, connection_count = 16, unit = size_t{64} << 10;

struct TablePort {
    int number;
    PortKind kind;
};
static constexpr TablePort table_ports[] = {
    {60000, PortKind::login  },
    {62001, PortKind::command},
    {63001, PortKind::event  },
    {62002, PortKind::command},
};

enum Call : uint8_t { add, received, sent, taken, answered, published, removed, opened, closed, turned, call_count };

using Accepted = std::array<bool, connection_count>;

static void take_step(FuzzInput &input, Accepted &accepted) {
    const auto call = static_cast<Call>(input.byte() % call_count);
    const uint8_t which = input.byte();
    const size_t place = which % connection_count;
    const int descriptor = first_descriptor + static_cast<int>(place);
    const TablePort &port = table_ports[which / connection_count % std::size(table_ports)];
    switch (call) {
        case add:
            if (!accepted[place]) accepted[place] = connection_table_add(descriptor, port.number, which >> 6);
            break;
        case received: {
            const std::string_view bytes = input.bytes(input.byte());
            connection_table_received(descriptor, bytes.data(), bytes.size());
            break;
        }
        case sent: connection_table_sent(descriptor, input.byte() * unit); break;
        case taken: connection_table_taken(port.number, descriptor, input.byte() * unit); break;
        case answered: connection_table_answered(descriptor, input.byte() * unit); break;
        case published: connection_table_published(port.number, input.byte() * unit); break;
        case removed:
            connection_table_remove(descriptor);
            accepted[place] = false;
            break;
        case opened: connection_table_open_port(port.number, port.kind); break;
        case closed: connection_table_close_port(port.number); break;
        default: connection_table_turn();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const bool ready = (connection_table_init(capacity), true);
    FuzzInput input(data, size);
    Accepted accepted = {};
    while (!input.left.empty()) {
        take_step(input, accepted);
        require(connection_table_held() <= 2 * held_by_all);
        require(connection_table_count_all() <= connection_count);
        require(connection_table_count_missing() <= std::size(table_ports));
    }
    for (size_t i = 0; i < connection_count; i++) connection_table_remove(first_descriptor + static_cast<int>(i));
    for (const TablePort &port : table_ports) {
        require(connection_table_count(port.number) == 0);
        connection_table_close_port(port.number);
    }
    require(connection_table_held() == 0 && connection_table_count_all() == 0 && connection_table_count_missing() == 0);
    return 0;
}
