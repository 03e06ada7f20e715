// Arguments, and what the tool says about them.
#include <tarn/tarn.h>

#include "tests/e2e/tool_fixture.h"
#include "tools/exit_status.h"

using namespace tarn_test;
using namespace tarn_tool;

using CommandLine = ToolFixture;

TEST_F(CommandLine, VersionIsTheLibrarys) {
  const char* version = nullptr;
  tarn_version(&version);

  const auto result = run({"--version"});

  EXPECT_EQ(result.status, kSuccess);
  EXPECT_EQ(result.output, std::string(version) + "\n");
}

TEST_F(CommandLine, HelpListsCommandsAndExitStatus) {
  const auto result = run({"--help"});

  EXPECT_EQ(result.status, kSuccess);
  for (const char* word : {"send", "recv", "relay", "inspect", "Exit status", "130"}) {
    EXPECT_NE(result.output.find(word), std::string::npos) << word;
  }
}

TEST_F(CommandLine, MistakesAreUsageErrors) {
  const std::vector<Arguments> mistakes = {
      {},
      {"fetch"},
      {"send"},
      {"send", "127.0.0.1:9"},
      {"recv"},
      {"recv", "0", "--window", "15"},
      {"recv", "0", "--window", "16385"},
      {"recv", "0", "--mtu", "255"},
      {"recv", "0", "--timeout", "0"},
      {"recv", "0", "--log", "6"},
      {"recv", "0", "--log", "-1"},
      {"recv", "65536"},
      {"recv", "somewhere"},
      {"relay", "0"},
      {"relay", "0", "127.0.0.1:9", "--loss", "101%"},
      {"relay", "0", "127.0.0.1:9", "--delay", "20parsecs"},
      {"relay", "0", "127.0.0.1:9", "--rate", "0"},
      {"relay", "0", "127.0.0.1"},
      {"inspect", "--seed", "1", "00"},
  };
  for (const Arguments& arguments : mistakes) {
    const auto result = run(arguments);
    std::string text;
    for (const std::string& argument : arguments) text += " " + argument;
    EXPECT_EQ(result.status, kFailure) << text;
    EXPECT_FALSE(result.errors.empty()) << text;
  }
}

TEST_F(CommandLine, RefusedQuantitySaysWhatItWants) {
  const auto result = run({"relay", "0", "127.0.0.1:9", "--loss", "much"});

  EXPECT_NE(result.errors.find("\"much\" is not a percentage like 10%"), std::string::npos)
      << result.errors;
}

TEST_F(CommandLine, FilesAreCheckedBeforeAnythingIsSent) {
  const auto result = run({"send", "127.0.0.1:9", make_file("f", "x"), "missing"});

  EXPECT_EQ(result.status, kFailure);
  EXPECT_NE(result.errors.find("cannot read missing"), std::string::npos) << result.errors;
}

TEST_F(CommandLine, AFolderIsNoFile) {
  const auto result = run({"send", "127.0.0.1:9", "."});

  EXPECT_EQ(result.status, kFailure);
  EXPECT_NE(result.errors.find("Is a directory"), std::string::npos) << result.errors;
}

TEST_F(CommandLine, APortInUseIsRefused) {
  const auto receiver = start_receiver({});

  const auto second = run({"recv", address_of(*receiver)});

  EXPECT_EQ(second.status, kFailure);
  EXPECT_NE(second.errors.find("Address already in use"), std::string::npos) << second.errors;
}

TEST_F(CommandLine, LogShowsTheLibrarysLog) {
  const auto receiver = start_receiver({"--once"});

  const auto sent = run({"send", "--log", "3", address_of(*receiver), make_file("f", "x")});

  EXPECT_EQ(sent.status, kSuccess);
  EXPECT_NE(sent.errors.find("[3] tarn session start"), std::string::npos) << sent.errors;
  EXPECT_EQ(receiver->errors().find("[3]"), std::string::npos);
}

TEST_F(CommandLine, LogIsTakenByEveryCommand) {
  EXPECT_EQ(run({"inspect", "--log", "5", "2400130000"}).status, kSuccess);
  EXPECT_EQ(run({"--log", "5", "inspect", "2400130000"}).status, kSuccess);
  EXPECT_EQ(run({"relay", "--log", "5", "0", "nowhere"}).status, kFailure);
}
