#include "fuzz/support/bus_input.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace fuzz {
namespace {

constexpr int kDeepestNesting = 16;
constexpr std::size_t kLongestArray = 4;
constexpr std::size_t kLongestString = 100000;

bool Has(const std::string& letters, char letter) { return letters.find(letter) != std::string::npos; }

// Reads values from the input and appends them to a message.
class Writer {
public:
  Writer(Input& input, bool long_strings) : m_input(input), m_long_strings(long_strings) {}

  void AppendAll(DBusMessageIter* out, DBusSignatureIter types, int depth) {
    do {
      AppendOne(out, types, depth);
    } while (dbus_signature_iter_next(&types));
  }

private:
  void AppendOne(DBusMessageIter* out, DBusSignatureIter types, int depth) {
    const int type = dbus_signature_iter_get_current_type(&types);
    if (!dbus_type_is_container(type)) {
      AppendBasic(out, type);
      return;
    }
    DBusSignatureIter content_types;
    std::string signature;
    if (type == DBUS_TYPE_VARIANT) {
      signature = TakeSignature(depth);
      dbus_signature_iter_init(&content_types, signature.c_str());
    } else {
      dbus_signature_iter_recurse(&types, &content_types);
      char* const first_type = dbus_signature_iter_get_signature(&content_types);
      signature = first_type;
      dbus_free(first_type);
    }
    const bool needs_signature = type == DBUS_TYPE_VARIANT || type == DBUS_TYPE_ARRAY;
    DBusMessageIter contents;
    dbus_message_iter_open_container(out, type, needs_signature ? signature.c_str() : nullptr, &contents);
    if (type == DBUS_TYPE_ARRAY) {
      for (std::size_t count = m_input.TakeNumber(kLongestArray); count > 0; --count) {
        AppendOne(&contents, content_types, depth + 1);
      }
    } else {
      AppendAll(&contents, content_types, depth + 1);
    }
    dbus_message_iter_close_container(out, &contents);
  }

  std::string TakeSignature(int depth) {
    const std::string signature = m_input.TakeField();
    const bool is_good = depth < kDeepestNesting && !Has(signature, DBUS_TYPE_UNIX_FD) &&
                         dbus_signature_validate_single(signature.c_str(), nullptr);
    return is_good ? signature : DBUS_TYPE_STRING_AS_STRING;
  }

  void AppendBasic(DBusMessageIter* out, int type) {
    const std::string field = m_input.TakeField();
    std::string text = field.c_str();
    DBusBasicValue value{};
    if (type == DBUS_TYPE_STRING) {
      for (int doublings = m_long_strings ? 7 : 0; doublings > 0 && text.size() < kLongestString; --doublings) {
        text += text;
      }
      text = dbus_validate_utf8(text.c_str(), nullptr) ? text : "";
    } else if (type == DBUS_TYPE_OBJECT_PATH) {
      text = dbus_validate_path(text.c_str(), nullptr) ? text : "/";
    } else if (type == DBUS_TYPE_SIGNATURE) {
      text = dbus_signature_validate(text.c_str(), nullptr) ? text : "";
    } else {
      std::memcpy(&value, field.data(), std::min(field.size(), sizeof value));
      if (type == DBUS_TYPE_BOOLEAN) {
        value.bool_val = field.size() % 2;
      }
      dbus_message_iter_append_basic(out, type, &value);
      return;
    }
    const char* const string = text.c_str();
    dbus_message_iter_append_basic(out, type, &string);
  }

  Input& m_input;
  const bool m_long_strings;
};

const char* InterfaceFor(const std::string& letters) {
  return Has(letters, 'i')   ? nullptr
         : Has(letters, 'I') ? DBUS_INTERFACE_INTROSPECTABLE
         : Has(letters, 'P') ? DBUS_INTERFACE_PROPERTIES
         : Has(letters, 'R') ? DBUS_INTERFACE_PEER
         : Has(letters, 'x') ? "com.example.Other"
                             : "com.tavimesh.Registry";
}

Message NewMessage(const std::string& member, const std::string& letters) {
  const bool is_reply = Has(letters, 'r') || Has(letters, 'e');
  const int type = Has(letters, 's')   ? DBUS_MESSAGE_TYPE_SIGNAL
                   : Has(letters, 'r') ? DBUS_MESSAGE_TYPE_METHOD_RETURN
                   : Has(letters, 'e') ? DBUS_MESSAGE_TYPE_ERROR
                                       : DBUS_MESSAGE_TYPE_METHOD_CALL;
  Message message(dbus_message_new(type));
  const char* interface = InterfaceFor(letters);
  // A signal must have an interface.
  interface = interface == nullptr && type == DBUS_MESSAGE_TYPE_SIGNAL ? "com.example.Other" : interface;
  dbus_message_set_path(message.get(), Has(letters, 'p')   ? "/com/tavimesh"
                                       : Has(letters, 'c') ? "/com/tavimesh/Registry/child"
                                                           : "/com/tavimesh/Registry");
  dbus_message_set_interface(message.get(), interface);
  dbus_message_set_member(message.get(), member.c_str());
  dbus_message_set_no_reply(message.get(), Has(letters, 'n'));
  if (is_reply) {
    dbus_message_set_reply_serial(message.get(), 1);
    dbus_message_set_error_name(message.get(), "com.example.Error");
  }
  return message;
}

}  // namespace

Message TakeMessage(Input& input) {
  const std::string member = input.TakeField();
  const std::string letters = input.TakeField();
  const std::string signature = input.TakeField();
  if (Has(member, '\0') || !dbus_validate_member(member.c_str(), nullptr) || Has(signature, '\0') ||
      Has(signature, DBUS_TYPE_UNIX_FD) || !dbus_signature_validate(signature.c_str(), nullptr)) {
    return nullptr;
  }
  Message message = NewMessage(member, letters);
  if (!signature.empty()) {
    DBusMessageIter out;
    dbus_message_iter_init_append(message.get(), &out);
    DBusSignatureIter types;
    dbus_signature_iter_init(&types, signature.c_str());
    Writer(input, Has(letters, 'b')).AppendAll(&out, types, 0);
  }
  return message;
}

}  // namespace fuzz
