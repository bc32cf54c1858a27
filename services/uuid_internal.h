// The pieces of UuidCreate that tests reach directly: the clock reading, its
// ordering, the node look-up and a replaceable host-identifier source.
#ifndef TVCOMMONUTIL_SERVICES_UUID_INTERNAL_H
#define TVCOMMONUTIL_SERVICES_UUID_INTERNAL_H

namespace tv {
namespace detail {

// One clock reading: microseconds, then seconds (from gettimeofday).
struct uuid_time_t {
    unsigned long long usec;
    unsigned long long sec;
};

// The six-byte node of every identifier this process makes.
struct uuid_address_t {
    unsigned char nodeID[6];
};

// Copies the node into *address; finds it on first use. 0 on success; 1
// (also stored in *error) when the host identifier is 0.
int uuid_get_address(uuid_address_t* address, unsigned long* error);
void uuid_get_os_time(uuid_time_t* time);
// 0 when a is earlier than b, 1 when equal, 2 when later (seconds first).
int uuid_time_cmp(const uuid_time_t* a, const uuid_time_t* b);
// The clock sequence for a process: Unix seconds & 0xFFFF.
unsigned short uuid_read_clock();

// Test seam: replaces gethostid() as the source of the node and forgets the
// node found so far. Returns the previous source.
using HostIdSource = long (*)();
HostIdSource SetHostIdSource(HostIdSource source);

}  // namespace detail
}  // namespace tv

#endif  // TVCOMMONUTIL_SERVICES_UUID_INTERNAL_H
