#include "tests/sim/conversation.h"

#include <errno.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "tarn/io.h"
#include "tests/sim/boundary.h"
#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

constexpr size_t kLargestPayload = 65533;
constexpr uint64_t kHealedDelay = 2 * kNsPerMs;
constexpr uint64_t kRotation = 120 * kNsPerMs;
constexpr uint64_t kFirstResend = 60 * kNsPerMs;
constexpr uint64_t kAuditPeriod = 7 * kNsPerMs;
// Segments further apart than this have no order; acknowledgements of single ones make room in the
// window, but do not move the oldest.
constexpr uint64_t kLargestSpan = 32'700;
constexpr size_t kMostSegments = 64;  // of a message that waits for room
constexpr size_t kLargestUnreliable = 60000;
constexpr size_t kSmallestInPlace = 6;

Stream::Rules rules(const Plan& plan, const Round& round, const ConversationPlan& own,
                    const Script& sender) {
  const ControlLimits limits(round.settings, sender.control);
  Stream::Rules rules;
  rules.largest_payload = std::min<size_t>(limits.mtu, kLargestPayload);
  rules.controlled = sender.control.on;
  // Who has begun to send before the first call has not looked for room.
  rules.most_sent = sender.control.late ? UINT64_MAX : limits.most_sent;
  rules.most_ahead = limits.most_ahead;
  rules.may_overflow = limits.least_queued == 0;
  rules.exact_timing = has_exact_timing(plan, own);
  rules.trusted = own.link_ab.corrupt == 0 && own.link_ba.corrupt == 0 && !own.restart_b;
  return rules;
}

Endpoint::Plan endpoint_plan(const std::string& name, const Round& round, const Script& script) {
  return {name, round.settings, script.habits, script.control};
}

}  // namespace

Conversation::Conversation(World& world, const Plan& plan, const Round& round,
                           const ConversationPlan& own, Random random, Lobby& lobby)
    : world_(world),
      round_(round),
      plan_(own),
      lobby_(lobby),
      random_(random),
      link_ab_(random_.fork(), own.link_ab),
      link_ba_(random_.fork(), own.link_ba),
      stream_ab_(world, own.name + ".a->b", rules(plan, round, own, own.script_a)),
      stream_ba_(world, own.name + ".b->a", rules(plan, round, own, own.script_b)),
      stream_fresh_(world, own.name + ".b2->a", rules(plan, round, own, own.script_b)),
      a_(world, endpoint_plan(own.name + ".a", round, own.script_a), random_.fork(), stream_ab_,
         stream_ba_, link_ab_),
      b_(world, endpoint_plan(own.name + ".b", round, own.script_b), random_.fork(), stream_ba_,
         stream_ab_, link_ba_),
      side_a_{a_, stream_ab_, link_ba_, own.script_a, own.conv_a, random_.fork()},
      side_b_{b_, stream_ba_, link_ab_, own.script_b, own.conv_b, random_.fork()} {}

void Conversation::open() {
  opened_at_ = world_.scheduler().now();
  if (plan_.path == Path::kListener) {
    meet();
    return;
  }
  if (plan_.path == Path::kSockets) {
    const uint16_t port_a = world_.network().reserve_port();
    const uint16_t port_b = world_.network().reserve_port();
    side_a_.ports = {port_a, port_b};
    side_b_.ports = {port_b, port_a};
  }
  for (Side* const side : {&side_a_, &side_b_}) {
    start(*side, side->ports.own != 0 ? SessionSocket::create(side->ports) : nullptr);
  }
}

// b opens when the listener reports a, on the I/O thread.
void Conversation::meet() {
  const uint16_t port_a = world_.network().reserve_port();
  side_a_.ports = {port_a, lobby_.port()};
  side_b_.ports = {lobby_.port(), port_a};
  lobby_.expect(port_a, [this](void* io) { start(side_b_, io); });
  void* const io = SessionSocket::create(side_a_.ports);
  knock(io);
  start(side_a_, io);
}

// Whatever comes to a listener first is lost; what comes twice before the peer has its socket may
// make it known twice, and a handle stays for a while: so it knocks less and less often.
void Conversation::knock(void* io) {
  for (uint64_t pause = 50 * kNsPerMs; side_b_.socket == nullptr; pause *= 2) {
    for (uint64_t count = random_.between(1, 3); count > 0; --count) {
      const InsideLibrary inside;
      tarn_write(io, "hello", 5);
    }
    world_.scheduler().sleep(std::min(pause, kNsPerSecond));
  }
}

void Conversation::start(Side& side, void* io) {
  if (io != nullptr) {
    side.socket = std::make_unique<SessionSocket>(world_, side.endpoint, io, side.ports);
  }
  side.endpoint.open(side.conv, io);
  receivers_.push_back(
      world_.scheduler().spawn("net>" + side.endpoint.name(), [this, &side] { receive(side); }));
}

// Gives the end what arrives for it, when it arrives.
void Conversation::receive(Side& side) {
  Scheduler& scheduler = world_.scheduler();
  while (receiving_ && side.endpoint.takes_datagrams()) {
    if (auto datagram = side.inbound.receive(scheduler.now())) {
      if (side.socket) {
        side.socket->arrive(std::move(*datagram));
      } else {
        side.endpoint.feed(std::move(*datagram));
      }
    } else {
      scheduler.block(&side.inbound, side.inbound.next_due());
    }
  }
}

void Conversation::run() {
  Scheduler& scheduler = world_.scheduler();
  std::vector<TaskId> players = spawn_players(side_a_);
  const std::vector<TaskId> players_b = spawn_players(side_b_);
  players.insert(players.end(), players_b.begin(), players_b.end());
  if (plan_.restart_b) {
    players.push_back(scheduler.spawn("restart", [this, players_b] { restart_b(players_b); }));
  }
  if (plan_.cut_off_a) players.push_back(scheduler.spawn("cut", [this] { cut_off_a(); }));
  if (plan_.stranger_share > 0) {
    players.push_back(scheduler.spawn("stranger", [this] { be_a_stranger(); }));
  }
  for (const TaskId each : players) scheduler.join(each);
}

std::vector<TaskId> Conversation::spawn_players(Side& side) {
  Scheduler& scheduler = world_.scheduler();
  const std::string& name = side.endpoint.name();
  std::vector<TaskId> players;
  for (side.players = 0; side.players < side.script.control.senders; ++side.players) {
    players.push_back(scheduler.spawn(name, [this, &side] { play(side); }));
  }
  if (side.script.control.on) {
    players.push_back(scheduler.spawn(name + ".reader", [this, &side] { control(side); }));
  }
  return players;
}

// A peer that has lost everything: it numbers from 0 again and expects 0, the other end does not.
void Conversation::restart_b(const std::vector<TaskId>& players_b) {
  world_.scheduler().sleep(kNsPerSecond);
  b_.destroy(0);
  // The new session may get the old one's address, which nobody may use any more then.
  for (const TaskId each : players_b) world_.scheduler().join(each);
  fresh_b_ =
      std::make_unique<Endpoint>(world_, endpoint_plan(plan_.name + ".b2", round_, plan_.script_b),
                                 random_.fork(), stream_fresh_, stream_ab_, link_ba_);
  fresh_side_ = std::make_unique<Side>(
      Side{*fresh_b_, stream_fresh_, link_ab_, plan_.script_b, plan_.conv_b, random_.fork()});
  void* io = nullptr;
  if (side_b_.socket) {
    side_b_.socket->close();
    fresh_side_->ports = side_b_.ports;
    io = SessionSocket::create(fresh_side_->ports);
  }
  start(*fresh_side_, io);
  fresh_side_->players = 1;
  play(*fresh_side_);
}

// While it sends, if it does.
void Conversation::cut_off_a() {
  Scheduler& scheduler = world_.scheduler();
  scheduler.sleep(random_.between(1, kNsPerSecond));
  scheduler.block(&link_ab_, scheduler.now() + kNsPerSecond);
  side_a_.socket->close();
}

void Conversation::play(Side& side) {
  const Script& script = side.script;
  const unsigned int messages = script.messages / script.control.senders;
  for (unsigned int sent = 0; sent < messages && side.endpoint.is_open() && !is_out_of_time();) {
    const auto burst = static_cast<unsigned int>(side.random.between(1, script.burst));
    for (unsigned int i = 0; i < burst && sent < messages; ++i, ++sent) send_one(side);
    check_resends();
    if (script.gap_ns == 0) continue;
    world_.scheduler().sleep(script.even ? script.gap_ns : side.random.between(0, script.gap_ns));
  }
  --side.players;
}

// Reads now and then only, and changes its mind, for as long as somebody sends here.
void Conversation::control(Side& side) {
  const ControlPlan& plan = side.script.control;
  size_t changed = 0;
  while (side.players > 0 && side.endpoint.is_open()) {
    const uint64_t longest = plan.reader_ns > 0 ? plan.reader_ns : 50 * kNsPerMs;
    world_.scheduler().sleep(side.random.between(1, longest));
    if (plan.late) side.endpoint.begin_control();
    if (plan.reader_ns > 0) side.endpoint.pause(side.random.chance(0.5));
    if (changed < plan.changes.size()) side.endpoint.change(plan.changes[changed++]);
  }
  side.endpoint.pause(false);
}

size_t Conversation::draw_size(Side& side) const {
  const Script& script = side.script;
  if (side.random.chance(script.tiny_share)) return side.random.between(1, 32);
  return side.random.between(script.smallest, script.largest);
}

void Conversation::send_one(Side& side) {
  size_t size = draw_size(side);
  // An mtu of its own may be small.
  if (side.script.control.on) size = std::min(size, kMostSegments * side.endpoint.limits().mtu);
  if (side.random.chance(side.script.meddle_share)) meddle(side);
  if (!side.random.chance(side.script.unreliable_share)) {
    if (side.random.chance(side.script.control.try_share)) {
      try_one(side, size);
    } else if (side.script.control.on && side.script.bounded) {
      send_bounded(side, size);
    } else {
      if (side.script.bounded) wait_for_room(side, size);
      side.endpoint.send_reliable(size);
    }
  } else if (side.random.chance(0.5)) {
    side.endpoint.send_unreliable(std::min(size, kLargestUnreliable));
  } else {
    side.endpoint.send_in_place(std::clamp(size, kSmallestInPlace, kLargestUnreliable));
  }
}

// Until the next message fits into the send window, or it is clear that it never will: after an
// overflow whose segment was lost nothing more is acknowledged.
void Conversation::wait_for_room(Side& side, size_t size) {
  const Settings& settings = round_.settings;
  const size_t segments = (size + settings.mtu - 1) / settings.mtu;
  while (settings.acknowledges() && !is_disturbed() &&
         side.endpoint.errors(TARN_ERROR_SEND_OVERFLOW) == 0 && !is_out_of_time() &&
         (side.endpoint.kept() + segments > settings.send_window ||
          side.out.span() + segments > kLargestSpan)) {
    check_resends();
    world_.scheduler().sleep(kAuditPeriod);
  }
}

// After a refusal nothing but the writable callback lets it go on.
void Conversation::try_one(Side& side, size_t size) {
  constexpr size_t kMostUnwritten = 2;
  Scheduler& scheduler = world_.scheduler();
  Endpoint& endpoint = side.endpoint;
  size = std::min(size, endpoint.limits().longest_message());
  const auto is_over = [&] { return is_disturbed() || side.out.is_broken() || is_out_of_time(); };
  if (side.random.chance(side.script.control.callback_share)) {
    endpoint.write(size);
    while (endpoint.unwritten() > kMostUnwritten && !is_over()) {
      scheduler.block(&endpoint, scheduler.now() + kAuditPeriod);
    }
    return;
  }
  for (;;) {
    const uint64_t begun = scheduler.points();
    if (endpoint.try_send(size) != -EAGAIN) return;
    while (endpoint.told_at() <= begun && !is_over()) {
      scheduler.block(&endpoint, scheduler.now() + kAuditPeriod);
    }
    if (is_over()) return;
  }
}

// Somebody else may take the room that it has waited for.
void Conversation::send_bounded(Side& side, size_t size) {
  size = std::min(size, side.endpoint.limits().longest_message());
  while (side.endpoint.is_open() && side.endpoint.send_room() < size && !is_disturbed() &&
         !side.out.is_broken() && !is_out_of_time()) {
    world_.scheduler().sleep(kAuditPeriod);
  }
  side.endpoint.send_reliable(size);
}

bool Conversation::is_out_of_time() const {
  return world_.scheduler().now() - opened_at_ > plan_.give_up_ns;
}

// Nothing can be promised of a conversation one of whose ends has gone, or in which datagrams were
// changed on the way.
bool Conversation::is_disturbed() const {
  return !a_.is_open() || !b_.is_open() || a_.is_cut_off() || plan_.link_ab.corrupt > 0 ||
         plan_.link_ba.corrupt > 0 || errors(TARN_ERROR_MESSAGE_TOO_LARGE) > 0;
}

void Conversation::meddle(Side& side) {
  switch (side.random.between(0, 3)) {
    case 0:
      side.endpoint.set_again();
      return;
    case 1: {
      const InsideLibrary inside;
      tarn_check_update_ms();
      return;
    }
    case 2: {
      const InsideLibrary inside;
      const char* version = nullptr;
      tarn_version(&version);
      return;
    }
    default:
      world_.scheduler().yield();
  }
}

// Datagrams that neither end has sent: they may say goodbye or make no sense, but not pretend to
// be data or acknowledgements.
void Conversation::be_a_stranger() {
  static constexpr std::string_view kDatagrams[] = {
      {"$\0\x13\0\0", 5},               // bye
      {"#\0\x13\0\0\x13\0\0", 8},       // two of them, in a datagram of the other kind
      {"$\0\x07\0\0", 5},               // unreliable, empty
      {"$\0\x07\0\x02ok\x17\0\0", 10},  // unreliable, then a type that is refused
      {"$\0\x03\0\x02\0\0", 7},         // reliable, without a byte
      {"$\0\x0b\0\0", 5},               // acknowledgements, none
      {"$\0\x0f\0\x03\0\0\0", 8},       // una, too long
      {"$\x01", 2},                     // a later version
      {"$\0\x03\xff\xff", 5},           // longer than it is
      {"", 0},
      {"$", 1},
      {"nonsense", 8},
  };
  for (int i = 0; i < 50; ++i) {
    world_.scheduler().sleep(20 * kNsPerMs);
    if (!random_.chance(plan_.stranger_share)) continue;
    const std::string_view datagram = kDatagrams[random_.between(0, std::size(kDatagrams) - 1)];
    Link& link = random_.chance(0.5) ? link_ab_ : link_ba_;
    link.inject(world_.scheduler().now(), datagram);
    world_.scheduler().wake(&link);
  }
}

void Conversation::check_resends() const {
  if (is_disturbed()) return;
  stream_ab_.check_resends();
  stream_ba_.check_resends();
}

bool Conversation::has_settled() {
  if (!stream_ab_.is_complete() || !stream_ba_.is_complete()) return false;
  // A refused segment that was lost keeps all later ones from being acknowledged for good.
  if (!round_.settings.acknowledges() || stream_ab_.is_broken() || stream_ba_.is_broken()) {
    return true;
  }
  return a_.kept() == 0 && b_.kept() == 0 && a_.is_written() && b_.is_written();
}

// How long it may take until all has been delivered and acknowledged over links that lose nothing.
// In each rotation the first missing segment arrives at least, and all of them if they have room
// where they arrive early.
uint64_t Conversation::time_to_settle() {
  const Settings& settings = round_.settings;
  const uint64_t now = world_.scheduler().now();
  const uint64_t kept = std::max(a_.kept(), b_.kept());
  // Segments that were refused after they had left may take the room of others.
  const unsigned int early = std::min(a_.limits().least_early, b_.limits().least_early);
  const bool has_room = kept <= early && errors(TARN_ERROR_SEND_OVERFLOW) == 0;
  const uint64_t rotations = has_room ? 2 : kept + 2;
  // Each of these waits for the acknowledgement of another one.
  const uint64_t later = a_.segments_to_send() + b_.segments_to_send();
  uint64_t on_the_way = 0;
  for (const Link* const link : {&link_ab_, &link_ba_}) {
    if (link->last_due() > now) on_the_way = std::max(on_the_way, link->last_due() - now);
  }
  // Turns cost a little time, the more the more tasks there are.
  const uint64_t turns =
      100 * kNsPerMs + rotations * kept * 200 * world_.scheduler().preemption().cost_ns;
  return on_the_way + kFirstResend + rotations * kRotation + 2 * kHealedDelay +
         later * (kRotation + 2 * kHealedDelay) + (later + 2) * settings.rtx_timeout * kNsPerMs +
         turns + world_.timer_lag_ns();
}

void Conversation::calm_down() {
  a_.calm_down();
  b_.calm_down();
  if (fresh_b_) fresh_b_->calm_down();
}

void Conversation::heal_and_settle() {
  link_ab_.heal(kHealedDelay);
  link_ba_.heal(kHealedDelay);
  if (is_disturbed()) return;
  const uint64_t allowed = time_to_settle();
  const uint64_t deadline = world_.scheduler().now() + allowed;
  while (!has_settled()) {
    if (is_disturbed()) return;
    resume();
    if (world_.scheduler().now() > deadline) {
      fail("{}: {:.0f} ms after the links healed {} and {} packets are kept, a->b {}, b->a {}",
           plan_.name, static_cast<double>(allowed) * 1e-6, a_.kept(), b_.kept(),
           stream_ab_.is_complete() ? "complete" : "incomplete",
           stream_ba_.is_complete() ? "complete" : "incomplete");
    }
    check_resends();
    world_.scheduler().sleep(kAuditPeriod);
  }
}

// A callback that was under way may have paused it after its reader had gone.
void Conversation::resume() {
  for (Endpoint* const each : {&a_, &b_}) {
    if (each->is_paused()) each->pause(false);
  }
}

void Conversation::check_counters() {
  for (Endpoint* const each : {&a_, &b_}) check_counters(*each);
  const bool is_at_rest = !is_disturbed() && round_.settings.acknowledges() &&
                          !stream_ab_.is_broken() && !stream_ba_.is_broken();
  if (!is_at_rest) return;
  a_.check_at_rest();
  b_.check_at_rest();
}

// An event is counted a little before it can be seen, or after.
void Conversation::check_counters(Endpoint& endpoint) {
  constexpr uint64_t kLongest = 5 * kNsPerSecond;
  const uint64_t deadline = world_.scheduler().now() + kLongest + world_.timer_lag_ns();
  for (;;) {
    const std::string difference = endpoint.counter_difference();
    if (difference.empty()) return;
    if (world_.scheduler().now() > deadline) fail("{}: {}", endpoint.name(), difference);
    world_.scheduler().sleep(kAuditPeriod);
  }
}

void Conversation::destroy() {
  // A session goes on without its socket.
  if (plan_.path != Path::kCallbacks && random_.chance(0.3)) close_sockets();
  destroy_sessions();
  close_sockets();
}

void Conversation::close_sockets() {
  for (Side* const side : {&side_a_, &side_b_, fresh_side_.get()}) {
    if (side != nullptr && side->socket) side->socket->close();
  }
}

void Conversation::destroy_sessions() {
  a_.destroy(plan_.wait_ms);
  b_.destroy(plan_.wait_ms);
  if (fresh_b_) fresh_b_->destroy(plan_.wait_ms);
}

void Conversation::finish() {
  Scheduler& scheduler = world_.scheduler();
  receiving_ = false;
  for (Link* const link : {&link_ab_, &link_ba_}) scheduler.wake(link);
  for (const TaskId each : receivers_) scheduler.join(each);
  const uint64_t deadline = scheduler.now() + kNsPerSecond + world_.timer_lag_ns();
  while (!a_.is_deleted() || !b_.is_deleted() || (fresh_b_ && !fresh_b_->is_deleted())) {
    if (scheduler.now() > deadline) fail("{}: a destroyed session is still there", plan_.name);
    scheduler.sleep(kNsPerMs);
  }
}

void Conversation::observe() {
  a_.observe();
  b_.observe();
  if (fresh_b_) fresh_b_->observe();
}

uint64_t Conversation::errors(TarnError code) const { return a_.errors(code) + b_.errors(code); }

uint64_t Conversation::messages_delivered() const {
  return stream_ab_.messages_delivered() + stream_ba_.messages_delivered();
}

}  // namespace tarn_sim
