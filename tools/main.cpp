#include <tarn/tarn.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <string>

#include "tools/commands.h"
#include "tools/exit_status.h"
#include "tools/interrupt.h"
#include "tools/terminal.h"
#include "tools/transfer_message.h"
#include "tools/units.h"

namespace tarn_tool {
namespace {

constexpr const char* kFooter =
    "Exit status:\n"
    "  0    all went well; every file arrived, and both ends agree on it\n"
    "  1    bad arguments, or a file or socket that could not be used\n"
    "  2    the two ends do not agree on size or SHA-256\n"
    "  3    the peer gave up, or did not keep to the protocol\n"
    "  4    nothing was heard from the peer for the timeout\n"
    "  5    inspect: the datagram, or a part of it, would be refused\n"
    "  130  interrupted (128 + the number of the signal)";

// What the command line says.
struct CommandLine {
  SendOptions send;
  ReceiveOptions receive;
  RelayOptions relay;
  std::string inspect = "-";
  int log_level = 0;
  std::function<int()> command;  // that was chosen
};

// An option whose text `parse` turns into `*target`; what it cannot parse is refused with `form`.
template <typename Parser, typename Target>
CLI::Option* add_quantity(CLI::App& app, const char* name, Parser parse, Target* target,
                          const char* form, const char* description) {
  const auto store = [parse, target, form, name](const std::string& text) {
    const auto value = parse(text);
    if (!value) throw CLI::ValidationError(name, "\"" + text + "\" is not " + form);
    *target = *value;
  };
  return app.add_option_function<std::string>(name, store, description)->type_name("");
}

void add_log(CLI::App& app, CommandLine& line) {
  app.add_option("--log", line.log_level,
                 "Show the library's log up to this level: 1 errors ... 5 every datagram")
      ->check(CLI::Range(0, 5))
      ->type_name("LEVEL");
}

void add_session_options(CLI::App& app, SessionSettings& settings) {
  app.add_option("--window", settings.window,
                 "Segments under way at most, 16 to 4096; 64 with --attach")
      ->check(CLI::Range(kMinWindow, kMaxWindow))
      ->type_name("N")
      ->capture_default_str();
  app.add_option("--mtu", settings.mtu, "Bytes in one message, 256 to 65000")
      ->check(CLI::Range(kMinMtu, kMaxMtu))
      ->type_name("N")
      ->capture_default_str();
  const auto store = [&settings](unsigned ms) { settings.timeout = std::chrono::milliseconds(ms); };
  app.add_option_function<unsigned>(
         "--timeout", store, "Silence after which the peer is gone, 500 to 3600000 ms [5000]")
      ->check(CLI::Range(kMinTimeoutMs, kMaxTimeoutMs))
      ->type_name("MS");
}

void add_transport(CLI::App& app, SessionSettings& settings) {
  const auto choose = [&settings](Transport transport) {
    return [&settings, transport] {
      settings.transport = transport;
      // Before --window, which has the last word, is looked at.
      if (transport == Transport::kAttached) settings.window = kAttachedWindow;
    };
  };
  CLI::Option* const attach = app.add_flag_callback("--attach", choose(Transport::kAttached),
                                                    "Let the library own the UDP sockets");
  app.add_flag_callback("--tcp", choose(Transport::kStream),
                        "Over a TCP connection, without a session")
      ->excludes(attach);
}

void add_send(CLI::App& app, CommandLine& line) {
  CLI::App& command = *app.add_subcommand("send", "Send files to a receiver");
  command.add_option("target", line.send.target, "HOST:PORT, [ADDRESS]:PORT for IPv6")->required();
  command.add_option("files", line.send.files, "Files, \"-\" for standard input")->required();
  add_transport(command, line.send.settings);
  add_session_options(command, line.send.settings);
  add_log(command, line);
  command.callback([&line] { line.command = [&line] { return run_send(line.send); }; });
}

void add_receive(CLI::App& app, CommandLine& line) {
  CLI::App& command = *app.add_subcommand("recv", "Receive files from any number of senders");
  command
      .add_option("port", line.receive.listener,
                  "PORT, or HOST:PORT for one interface; port 0 lets the system choose")
      ->required();
  command
      .add_option("-o,--output", line.receive.output,
                  "Write to FILE, \"-\" for standard output, all files joined; implies --once")
      ->type_name("FILE");
  command.add_flag("--once", line.receive.once, "End after one conversation");
  add_transport(command, line.receive.settings);
  add_session_options(command, line.receive.settings);
  add_log(command, line);
  command.callback([&line] { line.command = [&line] { return run_receive(line.receive); }; });
}

void add_link_options(CLI::App& app, LinkSettings& link) {
  constexpr const char* kPercent = "a percentage like 10%";
  constexpr const char* kDuration = "a duration like 20ms or 1.5s";
  add_quantity(app, "--loss", parse_percent, &link.loss, kPercent, "Datagrams lost, as in 10%");
  add_quantity(app, "--duplicate", parse_percent, &link.duplicate, kPercent,
               "Datagrams that arrive twice");
  add_quantity(app, "--reorder", parse_percent, &link.reorder, kPercent,
               "Datagrams held back by 5 to 25 ms, so that others overtake them");
  add_quantity(app, "--delay", parse_duration, &link.delay, kDuration, "Time on the way");
  add_quantity(app, "--jitter", parse_duration, &link.jitter, kDuration,
               "The delay varies by up to this much, without reordering");
  add_quantity(app, "--rate", parse_rate, &link.rate, "a rate like 20mbit or 500kbit",
               "Bits per second");
  add_quantity(app, "--queue", parse_size, &link.queue_bytes, "a size like 64k",
               "Bytes that wait for the rate, more are dropped [100 ms, at least 64k]");
}

void add_relay(CLI::App& app, CommandLine& line) {
  CLI::App& command = *app.add_subcommand(
      "relay", "Pass datagrams on to a server over a bad link, the same both ways");
  command.add_option("listen", line.relay.listener, "[HOST:]PORT to listen on")->required();
  command.add_option("target", line.relay.target, "HOST:PORT of the server")->required();
  add_link_options(command, line.relay.link);
  command.add_option("--seed", line.relay.seed, "Of everything random")
      ->type_name("N")
      ->capture_default_str();
  add_quantity(command, "--idle", parse_duration, &line.relay.idle, "a duration like 5s",
               "End after this long without a datagram");
  add_log(command, line);
  command.callback([&line] { line.command = [&line] { return run_relay(line.relay); }; });
}

void add_inspect(CLI::App& app, CommandLine& line) {
  CLI::App& command = *app.add_subcommand("inspect", "Explain a datagram");
  command.add_option("input", line.inspect,
                     "Hexadecimal digits, or a file of them or of raw bytes [standard input]");
  add_log(command, line);
  command.callback([&line] { line.command = [&line] { return run_inspect(line.inspect); }; });
}

int run(int argc, char** argv) {
  const char* version = "";
  tarn_version(&version);
  CommandLine line;
  CLI::App app("Sends files over lossy datagrams, and shows what such a link does.", "tarn");
  app.set_version_flag("--version", version);
  app.footer(kFooter);
  app.require_subcommand(1);
  add_log(app, line);
  add_send(app, line);
  add_receive(app, line);
  add_relay(app, line);
  add_inspect(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kSuccess : kFailure;
  }
  catch_interrupts();
  show_library_log(line.log_level);
  return line.command();
}

}  // namespace
}  // namespace tarn_tool

int main(int argc, char** argv) {
  try {
    return tarn_tool::run(argc, argv);
  } catch (const std::exception& error) {
    tarn_tool::say(stderr, std::string("tarn: ") + error.what());
    return tarn_tool::kFailure;
  }
}
