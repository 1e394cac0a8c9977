#include "fuzz/support/bus_input.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz/support/require.h"

namespace fuzz {
namespace {

constexpr int kDeepestNesting = 16;
constexpr std::size_t kLongestArray = 4;
constexpr std::size_t kLongestString = 100000;

bool Has(const std::string& letters, char letter) { return letters.find(letter) != std::string::npos; }

// Reads values of the given types from the input and appends them to a message.
class Writer {
public:
  Writer(Input& input, bool long_strings) : m_input(input), m_long_strings(long_strings) {}

  void Append(DBusMessageIter* out, const char* signature, int depth) {
    DBusSignatureIter types;
    dbus_signature_iter_init(&types, signature);
    if (*signature != '\0') {
      do {
        AppendOne(out, &types, depth);
      } while (dbus_signature_iter_next(&types));
    }
  }

private:
  void AppendOne(DBusMessageIter* out, DBusSignatureIter* types, int depth) {
    const int type = dbus_signature_iter_get_current_type(types);
    if (type == DBUS_TYPE_VARIANT) {
      AppendVariant(out, depth);
    } else if (!dbus_type_is_container(type)) {
      AppendBasic(out, type);
    } else {
      DBusSignatureIter content_types;
      dbus_signature_iter_recurse(types, &content_types);
      char* const signature = dbus_signature_iter_get_signature(&content_types);
      DBusMessageIter contents;
      dbus_message_iter_open_container(out, type, type == DBUS_TYPE_ARRAY ? signature : nullptr, &contents);
      dbus_free(signature);
      if (type == DBUS_TYPE_ARRAY) {
        for (std::size_t count = m_input.TakeNumber(kLongestArray); count > 0; --count) {
          AppendOne(&contents, &content_types, depth + 1);
        }
      } else {
        do {
          AppendOne(&contents, &content_types, depth + 1);
        } while (dbus_signature_iter_next(&content_types));
      }
      dbus_message_iter_close_container(out, &contents);
    }
  }

  void AppendVariant(DBusMessageIter* out, int depth) {
    std::string signature = m_input.TakeField();
    if (depth >= kDeepestNesting || Has(signature, DBUS_TYPE_UNIX_FD) ||
        !dbus_signature_validate_single(signature.c_str(), nullptr)) {
      signature = "s";
    }
    DBusMessageIter contents;
    dbus_message_iter_open_container(out, DBUS_TYPE_VARIANT, signature.c_str(), &contents);
    Append(&contents, signature.c_str(), depth + 1);
    dbus_message_iter_close_container(out, &contents);
  }

  void AppendBasic(DBusMessageIter* out, int type) {
    const std::string field = m_input.TakeField();
    std::string text = field.c_str();
    DBusBasicValue value{};
    if (type == DBUS_TYPE_STRING) {
      for (int doublings = m_long_strings ? 7 : 0; doublings > 0 && text.size() < kLongestString; --doublings) {
        text += text;
      }
      if (!dbus_validate_utf8(text.c_str(), nullptr)) {
        text.clear();
      }
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
    value.str = text.data();
    dbus_message_iter_append_basic(out, type, &value.str);
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
  DBusMessageIter out;
  dbus_message_iter_init_append(message.get(), &out);
  Writer(input, Has(letters, 'b')).Append(&out, signature.c_str(), 0);
  return message;
}

}  // namespace fuzz
