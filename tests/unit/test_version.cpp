// The library's version: the header's macros are the project's version (passed in by the build),
// and the library reports the same string.
#include <gtest/gtest.h>

#include <string>

#include "recstore.h"

TEST(Version, HeaderMacrosAreTheProjectVersion) {
    EXPECT_EQ(RECSTORE_VERSION_MAJOR, RECSTORE_PROJECT_VERSION_MAJOR);
    EXPECT_EQ(RECSTORE_VERSION_MINOR, RECSTORE_PROJECT_VERSION_MINOR);
    EXPECT_EQ(RECSTORE_VERSION_PATCH, RECSTORE_PROJECT_VERSION_PATCH);
    EXPECT_STREQ(RECSTORE_VERSION_STRING, RECSTORE_PROJECT_VERSION);
}

TEST(Version, StringIsMadeOfTheThreeNumbers) {
    EXPECT_EQ(std::string(RECSTORE_VERSION_STRING), std::to_string(RECSTORE_VERSION_MAJOR) + "." +
                                                        std::to_string(RECSTORE_VERSION_MINOR) +
                                                        "." +
                                                        std::to_string(RECSTORE_VERSION_PATCH));
}

TEST(Version, LibraryReportsTheHeaderVersion) {
    ASSERT_NE(recstore_version(), nullptr);
    EXPECT_STREQ(recstore_version(), RECSTORE_VERSION_STRING);
    EXPECT_STREQ(recstore_version(), "0.1.0");
}
