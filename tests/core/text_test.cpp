// The text forms of a state.
#include <iomanip>
#include <iostream>
#include <sstream>

#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class Text : public ::testing::Test {
  protected:
    static std::string printed(StateVector<T>& state) {
        std::ostringstream text;
        std::streambuf* const standard_output = std::cout.rdbuf(text.rdbuf());
        state.print();
        std::cout.rdbuf(standard_output);
        return text.str();
    }
};
TYPED_TEST_SUITE(Text, Precisions);

TYPED_TEST(Text, ShowsEveryAmplitudeInIndexOrder) {
    StateVector<TypeParam> state(1);
    state.reset();
    EXPECT_EQ(this->printed(state), "0: (1,0)\n1: (0,0)\n");
    EXPECT_EQ(state.str(), "(1,0) (0,0) ");
    state.apply_H(0);
    EXPECT_EQ(state.str(), "(0.707107,0) (0.707107,0) ");
    using Limits = std::numeric_limits<TypeParam>;
    load(state, {{-TypeParam(0), Limits::infinity()}, {TypeParam(1.5e-7), Limits::quiet_NaN()}});
    EXPECT_EQ(state.str(), "(-0,inf) (1.5e-07,nan) ");
    EXPECT_EQ(this->printed(state), "0: (-0,inf)\n1: (1.5e-07,nan)\n");
}

TYPED_TEST(Text, PrintsWithTheSettingsOfTheStream) {
    StateVector<TypeParam> state(0);
    load(state, {{TypeParam(0.125), -1}});
    const auto precision = std::cout.precision(2);
    const auto flags = std::cout.setf(std::ios::fixed);
    const std::string text = this->printed(state);
    std::cout.precision(precision);
    std::cout.flags(flags);
    EXPECT_EQ(text, "0: (0.12,-1.00)\n");
    EXPECT_EQ(state.str(), "(0.125,-1) ");
}

TYPED_TEST(Text, IsEmptyForAReleasedState) {
    StateVector<TypeParam> state(2);
    state.release_memory();
    EXPECT_EQ(this->printed(state), "");
    EXPECT_EQ(state.str(), "");
}

}  // namespace
}  // namespace pblinalg::test
