// Resolver calls only against localhost, 127.0.0.1 and literals: the test
// machines have no name servers.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <string.h>
#include <sys/socket.h>

#include <string>

#include <tvcommonutil.h>

TEST(HostNames, ReverseLookupOfLoopback) {
    std::string name = "unset";
    EXPECT_TRUE(CTvOS::tv_gethostbyaddr("127.0.0.1", name));
    EXPECT_FALSE(name.empty());
    EXPECT_NE("unset", name);

    // The three-argument form fills both strings and still says false.
    std::string name3, address;
    EXPECT_FALSE(CTvOS::tv_gethostbyaddr("127.0.0.1", name3, address));
    EXPECT_EQ(name, name3);
    EXPECT_EQ("127.0.0.1", address);

    hostent entry;
    hostent_data data;
    in_addr_t loop = inet_addr("127.0.0.1");
    int error = -1;
    EXPECT_EQ(&entry, cagethostbyaddr(reinterpret_cast<const char*>(&loop), 4, AF_INET, &entry,
                                      &data, &error));
    EXPECT_EQ(-1, error);  // untouched on success
    // A malformed request is an unrecoverable failure: 9.
    EXPECT_EQ(nullptr, cagethostbyaddr(reinterpret_cast<const char*>(&loop), 3, AF_INET, &entry,
                                       &data, &error));
    EXPECT_EQ(9, error);
}

TEST(HostNames, ForwardLookups) {
    hostent entry;
    char buffer[2048];
    ASSERT_EQ(&entry, tv_gethostbyname("localhost", &entry, buffer, sizeof(buffer)));
    ASSERT_NE(nullptr, entry.h_addr_list[0]);
    hostent entry2;
    EXPECT_EQ(&entry2,
              CTvOS::tv_gethostbyname(std::string("localhost"), &entry2, buffer, sizeof(buffer)));
    // A buffer too small for the answer fails rather than overflowing.
    char tiny[4];
    EXPECT_EQ(nullptr, tv_gethostbyname("localhost", &entry, tiny, sizeof(tiny)));
    EXPECT_EQ(nullptr, tv_gethostbyname(nullptr, &entry, buffer, sizeof(buffer)));
}

TEST(HostNames, ResolveIP) {
    char numeric[32];
    memset(numeric, 0, sizeof(numeric));
    EXPECT_TRUE(CTvOS::tv_resolveIP("127.0.0.1", 53, numeric, true));
    EXPECT_STREQ("127.0.0.1", numeric);
    EXPECT_TRUE(CTvOS::tv_resolveIP("localhost", 0, numeric, true));
    EXPECT_STREQ("127.0.0.1", numeric);
    EXPECT_TRUE(CTvOS::tv_resolveIP("::1", 0, numeric, false));
    EXPECT_STREQ("::1", numeric);

    // An IPv6 literal with IPv6 skipped has nothing left.
    EXPECT_FALSE(CTvOS::tv_resolveIP("::1", 0, numeric, true));
    // A numeric form longer than the 32-byte result is not cut; the result
    // is refused instead.
    EXPECT_FALSE(CTvOS::tv_resolveIP("1111:2222:3333:4444:5555:6666:7777:8888", 0, numeric, false));
    EXPECT_FALSE(CTvOS::tv_resolveIP("127.0.0.1", 0, nullptr, true));
    // Over-long names are refused before any look-up.
    std::string longName(1026, 'a');
    EXPECT_FALSE(CTvOS::tv_resolveIP(longName.c_str(), 0, numeric, true));
}
