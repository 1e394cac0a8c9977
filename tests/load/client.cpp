#include "tests/load/client.h"

#include <algorithm>
#include <iterator>

#include "tests/load/generator.h"

namespace {

// A number of fixed width keeps the prefixes in the order of the numbers.
std::string Prefix(unsigned number) { return "client" + std::to_string(1000 + number) + "."; }

// Returns the members of the JSON text, each after "},". That string is before each section's name, but nowhere else
// before a quotation mark.
std::string Members(const std::string& json) { return "}," + json.substr(1, json.size() - 2); }

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
    ++count;
  }
  return count;
}

std::string Describe(const model::Call& call) { return call.member + model::Describe({"call", call.arguments}); }

}  // namespace

Client::Client(const std::string& address, unsigned number, std::size_t budget, std::uint64_t seed)
    : m_prefix(Prefix(number)), m_budget(budget), m_connection(address), m_random(seed + number) {}

void Client::SendNext() {
  const model::Call call = RandomCall(m_random, m_prefix, m_budget - Text().size());
  Send(call, m_model.Apply(call), call.member == "SectionList" || call.member == "ReadAllJson");
}

void Client::Send(const model::Call& call, const model::Reply& expected, bool is_partial) {
  m_errors += expected.type == "error" ? 1 : 0;
  const dbus_uint32_t serial = m_connection.Send(NewCall(call).get());
  m_sent.push_back({serial, call, expected, is_partial});
}

bool Client::IsRight(const Sent& sent, const model::Reply& reply) const {
  if (!sent.is_partial || reply.type != sent.expected.type) {
    return model::IsExpected(reply, sent.expected);
  }
  if (sent.call.member == "SectionList") {
    std::vector<std::string> own;
    std::copy_if(reply.items.begin(), reply.items.end(), std::back_inserter(own),
                 [&](const std::string& name) { return name.rfind(m_prefix, 0) == 0; });
    return own == sent.expected.items && std::is_sorted(reply.items.begin(), reply.items.end());
  }
  const std::string members = Members(reply.items[0]), own = Members(sent.expected.items[0]);
  const std::string own_name = "},\"" + m_prefix;
  return members.find(own) != std::string::npos && Count(members, own_name) == Count(own, own_name);
}

std::size_t Client::CheckReplies() {
  std::size_t count = 0;
  while (const Message message = m_connection.TakeReply(false)) {
    if (m_sent.empty() || dbus_message_get_reply_serial(message.get()) != m_sent.front().serial) {
      throw UnexpectedReply("a reply is out of order");
    }
    const Sent& sent = m_sent.front();
    const model::Reply reply = ReplyOf(*message);
    if (!IsRight(sent, reply)) {
      throw UnexpectedReply(Describe(sent.call) + "\n  reply    " + model::Describe(reply) + "\n  expected " +
                            model::Describe(sent.expected));
    }
    m_sent.pop_front();
    ++count;
  }
  return count;
}
