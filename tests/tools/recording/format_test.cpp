// What is written is read back, and every kind of damage is reported with its place.
#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/tools/recording/Recordings.h"

namespace {

using namespace recording;

const std::string brokenHint =
    "Everything before it is good. Copy the file again from where it was recorded";
const std::string cutHint =
    "Everything before it is good. Either the recorder was killed or still runs, or the copy is "
    "incomplete: then copy the file again";
const std::string wrongFileHint = "Give a file that gatewayctl record has written";

Kept message(std::uint64_t time, std::string content, Stream stream = Stream::Fast) {
  return {Kind::Message, stream, 1, time, std::move(content)};
}

// One record of each kind and stream, with bytes of every value.
std::vector<Kept> allKinds() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return {
      {Kind::Started, Stream::Fast, 1, 0, "127.0.0.1:50005"},
      {Kind::Started, Stream::Slow, 1, 3, "127.0.0.1:50005"},
      {Kind::Opened, Stream::Fast, 1, 900, ""},
      message(1000, bytes),
      message(1000, "", Stream::Slow),
      {Kind::Lost, Stream::Fast, 1, 2000, contentOf(LostContent{7, 1ull << 40})},
      {Kind::Ended, Stream::Fast, 1, 3000, contentOf(EndContent{14, "gone"})},
      {Kind::Started, Stream::Fast, 2, 5003000, "127.0.0.1:50005"},
      {Kind::Message, Stream::Engine, 4000000000, 6000000, bytes},
      {Kind::Reply, Stream::Engine, 4000000000, ~std::uint64_t{0}, ""},
  };
}

// Random bytes, so that compressing does not hide their size.
std::string noise(std::size_t size, std::uint32_t seed = 1) {
  std::string bytes(size, '\0');
  std::uint32_t state = seed;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

// A recording of several blocks, some of which hold several records.
std::vector<Kept> severalBlocks() {
  std::vector<Kept> records;
  for (std::uint32_t i = 0; i < 40; ++i) records.push_back(message(i * 1000, noise(20000, i)));
  return records;
}

TEST(Recording, ReturnsEachKindAsItWasWritten) {
  const auto result = readBack(fileOf(allKinds()));
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.records, allKinds());
  EXPECT_EQ(Reader(sourceOf(fileOf({}))).startTime(), someDay);
}

TEST(Recording, ReturnsTheContentsOfEndAndLoss) {
  const std::string end = contentOf(EndContent{-1, "why"});
  EXPECT_EQ(endIn(end).code, -1);
  EXPECT_EQ(endIn(end).text, "why");
  const std::string lost = contentOf(LostContent{3, 1ull << 63});
  EXPECT_EQ(lostIn(lost).messages, 3u);
  EXPECT_EQ(lostIn(lost).bytes, 1ull << 63);
}

TEST(Recording, HoldsMessagesUpToTheLimit) {
  const std::vector<Kept> records{message(1, noise(contentLimit)), message(2, "last")};
  EXPECT_EQ(readBack(fileOf(records)).records, records);
  Writer writer([](std::string_view) {}, 0);
  EXPECT_THROW(writer.add(message(1, std::string(contentLimit + 1, 'x')).record()),
               std::invalid_argument);
}

TEST(Writer, RefusesWhatNoReaderAccepts) {
  Writer writer([](std::string_view) {}, 0);
  writer.add(message(5, "a").record());
  EXPECT_THROW(writer.add(message(4, "b").record()), std::invalid_argument);
  EXPECT_THROW(writer.add(Kept(Kind::Ended, Stream::Fast, 1, 5, "abc").record()),
               std::invalid_argument);
  EXPECT_THROW(writer.add(Kept(Kind::Opened, Stream::Fast, 1, 5, "a").record()),
               std::invalid_argument);
}

// Whatever has come in the last second may still be missing, but nothing older.
TEST(Writer, WritesABlockOnceItsFirstRecordIsASecondOld) {
  std::string file;
  Writer writer([&](std::string_view bytes) { file += bytes; }, 0);
  writer.add(message(10, "a").record());
  writer.flushIfDue(10 + blockPeriod - 1);
  EXPECT_TRUE(readBack(file).records.empty());
  writer.flushIfDue(10 + blockPeriod);
  EXPECT_EQ(readBack(file).records.size(), 1u);
  writer.add(message(2000000, "b").record());
  writer.add(message(2000000 + blockPeriod, "c").record());
  EXPECT_EQ(readBack(file).records.size(), 3u);
}

TEST(Writer, WritesABlockOnceItIsLarge) {
  std::string file;
  Writer writer([&](std::string_view bytes) { file += bytes; }, 0);
  writer.add(message(0, noise(blockTarget)).record());
  EXPECT_EQ(readBack(file).records.size(), 1u);
}

// At every length there is an error, and the records are the first ones of the recording.
TEST(Reader, ReturnsTheWholeRecordsOfACutFile) {
  const auto records = allKinds();
  const std::string file = fileOf(records);
  for (std::size_t size = 1; size < file.size(); ++size) {
    const auto result = readBack(std::string_view(file).substr(0, size));
    ASSERT_TRUE(result.isCut) << size << result.error;
    ASSERT_TRUE(std::equal(result.records.begin(), result.records.end(), records.begin())) << size;
  }
}

TEST(Reader, ReturnsRecordsOfTheBlockThatIsCut) {
  const auto records = severalBlocks();
  const std::string file = fileOf(records);
  std::size_t before = 0;
  std::size_t withinBlocks = 0;
  for (std::size_t size = 1000; size < file.size(); size += 1000) {
    const auto result = readBack(std::string_view(file).substr(0, size));
    ASSERT_TRUE(result.isCut);
    ASSERT_TRUE(std::equal(result.records.begin(), result.records.end(), records.begin()));
    ASSERT_GE(result.records.size(), before);
    if (result.records.size() > before) ++withinBlocks;
    before = result.records.size();
  }
  // 40 records make 4 blocks. More steps than blocks means that records of cut blocks came, too.
  EXPECT_GT(withinBlocks, 4u);
}

TEST(Reader, NamesTheByteWhereAFileIsCut) {
  const std::string file = fileOf({message(1, "a")});
  EXPECT_EQ(readBack(file.substr(0, file.size() - 1)).error,
            "at byte " + std::to_string(file.size() - 1) +
                ": the recording ends here without its last record. " + cutHint);
  EXPECT_EQ(readBack(file.substr(0, 5)).error,
            "at byte 5: the recording ends here without its last record. " + cutHint);
}

// Whichever bit is wrong, a reader never returns anything that was not recorded. A few bits of a
// compressed frame have no meaning.
TEST(Reader, NoticesEveryWrongBit) {
  const auto records = allKinds();
  const std::string file = fileOf(records);
  std::size_t ignored = 0;
  for (std::size_t bit = 0; bit < 8 * file.size(); ++bit) {
    std::string wrong = file;
    wrong[bit / 8] = static_cast<char>(wrong[bit / 8] ^ (1 << bit % 8));
    const auto result = readBack(wrong);
    ASSERT_TRUE(result.error != "" || result.records == records) << "bit " << bit;
    ASSERT_TRUE(std::equal(result.records.begin(), result.records.end(), records.begin()));
    if (result.error.empty()) ++ignored;
  }
  EXPECT_LT(ignored, file.size() / 10);
}

TEST(Reader, RefusesForeignFiles) {
  EXPECT_EQ(readBack("").error, "at byte 0: the file is empty. " + wrongFileHint);
  EXPECT_EQ(readBack("[Meters]\nTarget=127.0.0.1:50005").error,
            "at byte 0: this is not a recording, which begins with GWRECORD. " + wrongFileHint);
  EXPECT_EQ(readBack(std::string(1 << 20, '\0')).error,
            "at byte 0: this is not a recording, which begins with GWRECORD. " + wrongFileHint);
}

TEST(Reader, RefusesOtherVersions) {
  EXPECT_EQ(readBack(fileHead(2)).error,
            "at byte 8: the recording has version 2, but this program reads 1. Use the version of "
            "gatewayctl that wrote it");
}

TEST(Reader, RefusesADamagedHead) {
  std::string file = fileOf({});
  file[15] ^= 1;
  EXPECT_EQ(readBack(file).error,
            "at byte 0: the head of the file does not match its checksum. " + brokenHint);
}

// Neither sizes that a head claims nor zeros that hardly take space cost more than a block.
TEST(Reader, RefusesBlocksThatAreTooLarge) {
  EXPECT_EQ(
      readBack(fileHead() + blockHead(10, 0xffffffff)).error,
      "at byte 24: a block of 4294967295 bytes, compressed to 10, is out of bounds. " + brokenHint);
  EXPECT_EQ(
      readBack(fileHead() + blockHead(0xffffffff, 10)).error,
      "at byte 24: a block of 10 bytes, compressed to 4294967295, is out of bounds. " + brokenHint);
  EXPECT_EQ(readBack(fileHead() + blockHead(0, 0)).error,
            "at byte 24: a block of 0 bytes, compressed to 0, is out of bounds. " + brokenHint);
  const std::string bomb = blockOf(std::string(blockLimit + 1, '\0'));
  EXPECT_LT(bomb.size(), 10000u);
  EXPECT_NE(readBack(fileHead() + bomb).error.find("is out of bounds"), std::string::npos);
  // The head names fewer bytes than the frame holds.
  const std::string frame = bomb.substr(blockHeadSize);
  EXPECT_EQ(readBack(fileHead() + blockHead(frame.size(), 100) + frame).error,
            "at byte 24: the compressed block does not have the size that its head states. " +
                brokenHint);
  EXPECT_EQ(readBack(fileHead() + blockOf(std::string(1000000, '\0'))).error,
            "at byte 24: in the block that begins here, at its byte 0, a record has 0 bytes. " +
                brokenHint);
}

std::string recordBytes(std::uint64_t size, std::uint64_t kind, std::uint64_t stream,
                        std::uint64_t filler, std::uint64_t time) {
  std::string bytes;
  appendNumber(bytes, size, 4);
  appendNumber(bytes, kind, 1);
  appendNumber(bytes, stream, 1);
  appendNumber(bytes, filler, 2);
  appendNumber(bytes, 1, 4);
  appendNumber(bytes, time, 8);
  return bytes;
}

TEST(Reader, RefusesWrongRecords) {
  const std::string good = recordBytes(20, 1, 0, 0, 5);
  const std::array<std::pair<std::string, std::string>, 9> cases{{
      {recordBytes(21, 1, 0, 0, 5), "0, a record of 21 bytes exceeds its block"},
      {recordBytes(19, 1, 0, 0, 5), "0, a record has 19 bytes"},
      {"abc", "0, a record of 20 bytes exceeds its block"},
      {recordBytes(20, 7, 0, 0, 5), "0, a record has the unknown kind 7"},
      {recordBytes(20, 1, 3, 0, 5), "0, a record has the unknown stream 3"},
      {recordBytes(20, 1, 0, 1, 5), "0, a record has the unknown stream 0"},
      {recordBytes(20, 4, 0, 0, 5), "0, a record of kind ended has 0 bytes"},
      {good + recordBytes(20, 1, 0, 0, 4), "20, the time of a record goes back"},
      {recordBytes(20, 6, 0, 0, 5) + good, "20, a record follows the last one"},
  }};
  for (const auto& [block, problem] : cases) {
    EXPECT_EQ(
        readBack(fileHead() + blockOf(block)).error,
        "at byte 24: in the block that begins here, at its byte " + problem + ". " + brokenHint);
  }
}

TEST(Reader, RefusesBytesAfterTheEnd) {
  const std::string file = fileOf({message(1, "a")});
  EXPECT_EQ(readBack(file + "x").error, "at byte " + std::to_string(file.size()) +
                                            ": something follows the end of the recording. " +
                                            brokenHint);
}

TEST(FileSource, SaysWhyAFileCannotBeRead) {
  const auto errorOf = [](const std::string& path) -> std::string {
    try {
      const Reader reader(fileSource(path));
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(errorOf("/nowhere/file"), "can't read /nowhere/file: No such file or directory");
  EXPECT_EQ(errorOf("/"), "can't read /: Is a directory");
}

}  // namespace
