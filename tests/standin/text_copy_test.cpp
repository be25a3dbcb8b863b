// The bounded copy: what the boundary fixes, and what it leaves to the host.
#include <array>
#include <string>

#include "tests/standin/with_host.h"

namespace {

class TextCopy : public WithHost {
 protected:
  // The buffer after a copy with size 100, and the byte after it.
  std::string copied(const std::string& text) {
    std::array<char, 101> buffer;
    buffer.fill('#');
    sonalith_strncpy(buffer.data(), text.c_str(), 100);
    return std::string(buffer.data(), buffer.size());
  }

  static std::string zeros(std::size_t count) { return std::string(count, '\0'); }
};

}  // namespace

TEST_F(TextCopy, ZerosFillTheRestOfTheBuffer) {
  EXPECT_EQ(copied("abc"), "abc" + zeros(97) + "#");
  EXPECT_EQ(copied(""), zeros(100) + "#");
}

TEST_F(TextCopy, NinetyNineBytesFitWithTheirTerminator) {
  EXPECT_EQ(copied(std::string(99, 'x')), std::string(99, 'x') + zeros(1) + "#");
}

TEST_F(TextCopy, AFullBufferIsTerminatedByDefault) {
  EXPECT_EQ(copied(std::string(100, 'x')), std::string(99, 'x') + zeros(1) + "#");
  EXPECT_EQ(copied(std::string(300, 'x')), std::string(99, 'x') + zeros(1) + "#");
}

TEST_F(TextCopy, AFullBufferIsNotTerminatedIfTheChoicesSaySo) {
  host.setChoices({.strncpyTerminates = false});
  EXPECT_EQ(copied(std::string(99, 'x')), std::string(99, 'x') + zeros(1) + "#");
  EXPECT_EQ(copied(std::string(100, 'x')), std::string(100, 'x') + "#");
  EXPECT_EQ(copied(std::string(300, 'x')), std::string(100, 'x') + "#");
}

TEST_F(TextCopy, ASizeOfZeroWritesNothing) {
  std::string buffer = "###";
  sonalith_strncpy(buffer.data() + 1, "abc", 0);
  EXPECT_EQ(buffer, "###");
  EXPECT_EQ(host.violations(), Texts{});
}

TEST_F(TextCopy, NullArgumentsAreViolations) {
  char buffer = '#';
  sonalith_strncpy(&buffer, nullptr, 1);
  sonalith_strncpy(nullptr, "abc", 1);
  EXPECT_EQ(buffer, '#');
  EXPECT_EQ(host.violations(),
            (Texts{"sonalith_strncpy: null argument", "sonalith_strncpy: null argument"}));
}
