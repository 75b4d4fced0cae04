#include <gtest/gtest.h>

#include "kernels/isa.h"

namespace {

TEST(KernelIsa, NamesParseAndUnsupportedRequestsChangeNothing) {
    for (int i = 0; i < vo::kIsaCount; ++i) EXPECT_EQ(vo::parse_isa(vo::isa_name(vo::Isa(i))), i);
    EXPECT_EQ(vo::parse_isa("sse2"), -1);
    EXPECT_EQ(vo::parse_isa(nullptr), -1);
    EXPECT_TRUE(vo::isa_supported(vo::kIsaReference));

    const vo::Isa active = vo::kernels().isa;
    EXPECT_EQ(vo::set_isa_for_testing(vo::Isa(99)), active);
    EXPECT_EQ(vo::kernels().isa, active);
    EXPECT_EQ(vo::set_isa_for_testing(vo::kIsaReference), active);
    EXPECT_STREQ(vo::kernels().name, "reference");
    vo::set_isa_for_testing(active);
}

}  // namespace
