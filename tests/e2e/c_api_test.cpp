#include <gtest/gtest.h>

extern "C" int lx_c_header_probe(void);

TEST(CApi, HeaderCompilesAsCAndExportsResolve) { EXPECT_EQ(lx_c_header_probe(), 0); }
