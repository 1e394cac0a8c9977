// The verbs that show the registry to people and to scripts.
#include <algorithm>

#include "client/json_text.h"
#include "client/quote_word.h"
#include "client/registry_snapshot.h"
#include "client/text_form.h"
#include "client/verbs.h"
#include "registry/name_rules.h"

namespace ledgerctl {
namespace {

constexpr std::size_t kCapacity = kRegistryCapacity;

std::vector<std::string> Names(const CommandLine& command, Registry& registry) {
  std::vector<std::string> names;
  if (command.section) {
    for (const auto& entry : ReadSection(registry, *command.section)) {
      names.push_back(entry.first);
    }
  } else {
    registry.SectionList([&](const std::string& section) { names.push_back(section); });
  }
  return names;
}

void PrintSections(const RegistrySections& sections, Output& output) {
  PrintText(sections, [&](TextPart part, const std::string& piece) {
    switch (part) {
      case TextPart::SectionName:
        output.WriteColoured(Colour::Bold, piece);
        break;
      case TextPart::Key:
        output.WriteColoured(Colour::Blue, piece);
        break;
      case TextPart::Other:
        output.Write(piece);
    }
  });
}

// Names can be as long as the registry.
std::string Shortened(const std::string& word, std::size_t width) {
  if (word.size() <= width) {
    return word;
  }
  std::size_t cut = width - 3;
  // Not within a character.
  while (cut > 0 && (static_cast<unsigned char>(word[cut]) & 0xC0) == 0x80) {
    --cut;
  }
  return word.substr(0, cut) + "...";
}

std::string PaddedLeft(std::string text, std::size_t width) {
  text.insert(0, width - std::min(width, text.size()), ' ');
  return text;
}

std::size_t Percent(std::size_t used) { return (used * 100 + kCapacity / 2) / kCapacity; }

struct Share {
  std::string section;
  std::size_t size;
};

void PrintJsonShares(const std::vector<Share>& shares, std::size_t used, Output& output) {
  output.Write("{\"used\":" + std::to_string(used) + ",\"capacity\":" + std::to_string(kCapacity) + ",\"sections\":{");
  const char* separator = "";
  for (const Share& share : shares) {
    output.Write(separator + QuoteJson(share.section) + ":" + std::to_string(share.size));
    separator = ",";
  }
  output.Write("}}\n");
}

void PrintBars(std::vector<Share> shares, std::size_t used, Output& output) {
  constexpr std::size_t kLongestName = 30;
  constexpr std::size_t kSizeWidth = 6;
  output.Write(std::to_string(used) + " of " + std::to_string(kCapacity) + " bytes used (" +
               std::to_string(Percent(used)) + " %), " + std::to_string(kCapacity - std::min(used, kCapacity)) +
               " free\n");
  // The largest first: that is what people look for.
  std::stable_sort(shares.begin(), shares.end(), [](const Share& a, const Share& b) { return a.size > b.size; });
  std::size_t name_width = 0;
  for (const Share& share : shares) {
    name_width = std::max(name_width, Shortened(QuoteWord(share.section), kLongestName).size());
  }
  const std::size_t taken = kSizeWidth + name_width + 5;
  const std::size_t columns = output.Columns();
  const std::size_t bar_width = columns > taken + 10 ? columns - taken : 10;
  for (const Share& share : shares) {
    const std::string name = Shortened(QuoteWord(share.section), kLongestName);
    output.Write(PaddedLeft(std::to_string(share.size), kSizeWidth) + "  " + name);
    if (const std::size_t length = (share.size * bar_width + kCapacity / 2) / kCapacity) {
      output.Write(std::string(name_width - name.size() + 2, ' '));
      output.WriteColoured(Colour::Green, std::string(std::min(length, bar_width), '#'));
    }
    output.Write("\n");
  }
}

}  // namespace

ExitStatus List(const CommandLine& command, Context& context) {
  if (command.section) {
    CheckName(*command.section);
  }
  const std::vector<std::string> names = Names(command, context.registry);
  if (command.json) {
    const char* separator = "[";
    for (const std::string& name : names) {
      context.output.Write(separator + QuoteJson(name));
      separator = ",";
    }
    context.output.Write(names.empty() ? "[]\n" : "]\n");
    return ExitStatus::Success;
  }
  for (const std::string& name : names) {
    // A name can hold what would take over the terminal.
    context.output.Write(context.output.IsTerminal() && !command.nul ? QuoteWord(name) : name);
    context.output.Write(command.nul ? std::string_view("\0", 1) : "\n");
  }
  return ExitStatus::Success;
}

ExitStatus Show(const CommandLine& command, Context& context) {
  RegistrySections sections;
  if (command.section) {
    const std::string name = FoldName(*command.section);
    sections[name] = ReadSection(context.registry, name);
    if (command.json) {
      context.output.Write(PrintJsonSection(sections[name]) + "\n");
      return ExitStatus::Success;
    }
  } else {
    sections = ReadRegistry(context.registry);
  }
  if (command.json) {
    context.output.Write(PrintIndentedJson(sections));
  } else {
    PrintSections(sections, context.output);
  }
  return ExitStatus::Success;
}

ExitStatus ShowUsage(const CommandLine& command, Context& context) {
  std::size_t used = 0;
  std::vector<Share> shares;
  for (const auto& entry : ReadRegistry(context.registry)) {
    const std::size_t size = SerialiseRegistry({entry}).size();
    used += size;
    shares.push_back({entry.first, size});
  }
  if (command.json) {
    PrintJsonShares(shares, used, context.output);
  } else {
    PrintBars(shares, used, context.output);
  }
  const bool is_above = command.fail_above && static_cast<double>(used * 100) > *command.fail_above * kCapacity;
  return is_above ? ExitStatus::Missing : ExitStatus::Success;
}

}  // namespace ledgerctl
