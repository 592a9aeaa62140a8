#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LinuxDisks.h"
#include "tests/support/TempDir.h"

// The text file that is read by the line.

namespace {

constexpr char EndOfText[] = "SYSTEM\tfgets failed  \n ";

class LinuxDiskFileIO : public testing::Test {
protected:
    CTempDir m_Dir;
};

TEST_F(LinuxDiskFileIO, AFileGivesItsLinesWithTheirLineFeeds) {
    m_Dir.Write("text", "one\n\n  three\r\nwithout an end");
    FileIO file(m_Dir.File("text").c_str(), "r");
    char line[64];
    for (const char* const expected : {"one\n", "\n", "  three\r\n", "without an end"}) {
        file.ReadLine(line, sizeof(line));
        EXPECT_STREQ(expected, line);
    }
    for (int turn = 0; turn < 2; ++turn) {
        EXPECT_PARSER_THROWS(file.ReadLine(line, sizeof(line)), EndOfText);
        EXPECT_STREQ("", line);
    }
}

TEST_F(LinuxDiskFileIO, ALongLineComesInPieces) {
    m_Dir.Write("text", "12345678901\nnext\n");
    FileIO file(m_Dir.File("text").c_str(), "r");
    char line[6];
    for (const char* const expected : {"12345", "67890", "1\n", "next\n"}) {
        file.ReadLine(line, sizeof(line));
        EXPECT_STREQ(expected, line);
    }
}

TEST_F(LinuxDiskFileIO, LinesGoOverThePiecesInWhichTheFileIsRead) {
    std::string text;
    for (int number = 0; number < 5000; ++number)
        text += "line " + std::to_string(number) + "\n";
    m_Dir.Write("text", text);
    FileIO file(m_Dir.File("text").c_str(), "r");
    std::string read;
    char line[64];
    for (int number = 0; number < 5000; ++number) {
        file.ReadLine(line, sizeof(line));
        read += line;
    }
    EXPECT_EQ(text, read);
}

TEST_F(LinuxDiskFileIO, AFileThatDoesNotOpenThrows) {
    EXPECT_PARSER_THROWS(FileIO(m_Dir.File("none").c_str(), "r"), "SYSTEM\tfopen failed  \n ");
    EXPECT_PARSER_THROWS(FileIO(m_Dir.Path().c_str(), "r"), "SYSTEM\tfopen failed  \n ");
}

// A line that a failure cuts short isn't a line.
TEST_F(LinuxDiskFileIO, AFileThatCannotBeReadThrows) {
    m_Dir.Write("text", std::string(8190, 'x') + "\nabc\n");
    const CFaultyFiles faulty(Fault_t{FaultOp::Read, 1, EIO});
    FileIO file(m_Dir.File("text").c_str(), "r");
    std::string line(9000, '\0');
    file.ReadLine(line.data(), 9000);
    EXPECT_EQ(8191U, std::string(line.c_str()).size());
    EXPECT_PARSER_THROWS(file.ReadLine(line.data(), 9000), EndOfText);
}

TEST_F(LinuxDiskFileIO, AFileIsClosedInTheEnd) {
    m_Dir.Write("text", "x");
    const CFaultyFiles counting;
    { const FileIO file(m_Dir.File("text").c_str(), "r"); }
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
}

}  // namespace
