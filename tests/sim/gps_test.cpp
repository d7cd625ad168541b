// The disciplined reference: a tone's frequency moves with the tune word.
#include <complex>
#include <numbers>

#include "sim_test_util.h"

using namespace simtest;

namespace {

using GpsTest = SimTest;

// The samples come from the reference the tune word sets, whether the host
// wrote the word or the discipline walked it there.
TEST_F(GpsTest, DisciplinedWordRetunesTheReference) {
    const double tone = RowCentre(300) + 1e6;
    const uint16_t target = 0x8040 + 1000;
    std::string scene = ToneScene(tone, -20, -200);
    scene.insert(scene.size() - 1, R"(, "gps": {"disciplined_tune": )" + std::to_string(target) + "}");
    ASSERT_EQ(lxSimAttach(80000600, scene.c_str()), lxNoError);
    auto d = Open(80000600);
    ASSERT_NE(d, nullptr);
    std::vector<uint32_t> words = TuneWords(300);
    words.push_back(0x2E008040u);
    ASSERT_TRUE(Send(*d, words));
    // Baseband frequency of a clean tone: least-squares slope of its unwrapped phase.
    const auto measure = [&] {
        EXPECT_TRUE(Send(*d, Request(4, 0)));
        const ReadResult r = Read(*d, 32768);
        EXPECT_EQ(r.data.size(), 32768u);
        const double n = 8192, mid = (n - 1) / 2;
        double phase = 0, sxy = 0, sxx = 0;
        const auto x = Samples(r.data, r.data.size() / 8192);
        for (size_t i = 0; i < x.size(); ++i) {
            phase += i == 0 ? std::arg(x[0]) : std::arg(x[i] * std::conj(x[i - 1]));
            sxy += (static_cast<double>(i) - mid) * phase; // the mean phase drops out: sum(i - mid) = 0
            sxx += (static_cast<double>(i) - mid) * (static_cast<double>(i) - mid);
        }
        return sxy / sxx * 61.44e6 / (2 * std::numbers::pi);
    };
    const double atFactoryWord = measure();
    EXPECT_NEAR(atFactoryWord, 1e6, 1e3) << "the tone is in view";
    ASSERT_TRUE(Send(*d, {0x2F000001u}));
    ASSERT_EQ(lxSimAdvanceTimeMs(1001000), lxNoError);
    ASSERT_TRUE(Send(*d, Request(0, 1))); // the status packet reports the walked word
    const ReadResult status = Read(*d, 8192);
    ASSERT_EQ(status.data.size(), 8192u);
    EXPECT_EQ(U16(&status.data[44]), target);
    const double walked = measure();
    ASSERT_TRUE(Send(*d, {0x2F000000u, 0x2E000000u | target}));
    EXPECT_NEAR(walked, measure(), 0.1);
    // 0.3 ppb per count: the reference runs fast, so the tone sits lower.
    EXPECT_NEAR(atFactoryWord - walked, tone * 1000 * 0.3e-9, 30.0);
}

} // namespace
