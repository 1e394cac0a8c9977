#include "registry/json_members.h"

#include <algorithm>
#include <cstring>

namespace {

// A chunk has this many bytes of a name, then their number, plus one if the name continues. So shorter names are sorted
// first, even if names contain NUL bytes.
constexpr std::size_t kChunk = 7;
constexpr std::uint64_t kGoesOn = kChunk + 1;

unsigned char Folded(char c) { return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); }

bool IsAscii(std::string_view name) {
  return std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

JsonMember JsonNames::MakeMember(const std::string& name, std::size_t end) {
  JsonMember member;
  member.kind = JsonMember::Kind::Null;
  member.is_ascii = IsAscii(name);
  member.is_last_of_name = true;
  member.is_last_key = false;
  member.number = 0;
  // If the name contains no quote, a quote before it in the text can only be the opening one.
  const std::size_t begin = end - 1 - name.size();
  if (begin < end && m_text[begin - 1] == '"' && m_text.compare(begin, name.size(), name) == 0 &&
      name.find('"') == std::string::npos) {
    member.name = static_cast<std::uint32_t>(begin);
  } else {
    member.name = static_cast<std::uint32_t>(m_text.size() + m_decoded.size());
    m_decoded.push_back({static_cast<std::uint32_t>(m_decoded_text.size()), static_cast<std::uint32_t>(end)});
    m_decoded_text += name;
  }
  return member;
}

std::string_view JsonNames::Name(const JsonMember& member) const { return Beginning(member, 0, m_text.size()); }

std::size_t JsonNames::EndOfName(const JsonMember& member) const {
  return IsInText(member) ? m_text.find('"', member.name) + 1 : m_decoded[member.name - m_text.size()].end_in_text;
}

// Returns at most `size` bytes of the name, beginning at `from`.
std::string_view JsonNames::Beginning(const JsonMember& member, std::size_t from, std::size_t size) const {
  if (IsInText(member)) {
    const std::string_view rest = std::string_view(m_text).substr(member.name + from, size);
    return rest.substr(0, rest.find('"'));
  }
  const std::size_t index = member.name - m_text.size();
  const std::size_t end = index + 1 == m_decoded.size() ? m_decoded_text.size() : m_decoded[index + 1].begin;
  const std::size_t begin = m_decoded[index].begin + from;
  return std::string_view(m_decoded_text).substr(begin, std::min(size, end - begin));
}

class JsonNames::Sorter {
public:
  Sorter(const JsonNames& names, std::vector<JsonMember>& members, StopCheck& stop)
      : m_names(names), m_members(members), m_stop(stop) {}

  void SortByFoldedName(std::size_t first) { SortRange<Names::Folded>(first, m_members.size()); }

  // Sorts members whose folded names are equal by their names as written.
  void SortByFoldedAndWrittenName(std::size_t first) { SortRange<Names::FoldedAndWritten>(first, m_members.size()); }

  // Keeps only the last of the sorted members with the same name as written.
  void KeepLast(std::size_t first) {
    std::size_t kept = first;
    for (std::size_t i = first; i < m_members.size(); ++i) {
      m_stop.Step();
      JsonMember last = m_members[i];
      while (!m_members[i].is_last_of_name && IsSameName(m_members[i], m_members[i + 1])) {
        last = LaterInText(last, m_members[++i]);
      }
      last.is_last_of_name = m_members[i].is_last_of_name;
      m_members[kept++] = last;
    }
    m_members.resize(kept);
  }

private:
  enum class Names { Folded, FoldedAndWritten, Written };

  struct Range {
    std::uint32_t first;
    std::uint32_t last;
    std::uint32_t depth;  // in chunks; the names are equal up to there
  };

  // Compares one chunk after another, so that a common beginning of long names is read only once.
  template <Names names>
  void SortRange(std::size_t first, std::size_t last) {
    std::vector<Range> ranges;
    Push(ranges, first, last, 0);
    while (!ranges.empty()) {
      const Range range = ranges.back();
      ranges.pop_back();
      SortByChunk(range, names != Names::Written);
      for (std::size_t begin = range.first; begin < range.last;) {
        const std::size_t end = EndOfEqualChunks(begin, range.last);
        if (end - begin > 1 && (m_members[begin].chunk & 0xFF) == kGoesOn) {
          Push(ranges, begin, end, range.depth + 1);
        } else if (end - begin > 1) {
          EndName<names>(begin, end);
        }
        begin = end;
      }
    }
  }

  // The members have the same name, or names that differ only in case if they are sorted without regard to case.
  template <Names names>
  void EndName(std::size_t first, std::size_t last) {
    if constexpr (names == Names::FoldedAndWritten) {
      SortByWrittenName(first, last);
    }
    if constexpr (names != Names::Written) {
      for (std::size_t i = first; i < last; ++i) {
        m_members[i].is_last_of_name = i + 1 == last;
      }
    }
  }

  void SortByWrittenName(std::size_t first, std::size_t last) {
    if (last - first > kFew) {
      SortRange<Names::Written>(first, last);
      return;
    }
    std::sort(Iterator(first), Iterator(last), [this](const JsonMember& a, const JsonMember& b) {
      const int order = m_names.Name(a).compare(m_names.Name(b));
      return order != 0 ? order < 0 : a.name < b.name;
    });
  }

  void SortByChunk(const Range& range, bool fold) {
    for (std::size_t i = range.first; i < range.last; ++i) {
      m_stop.Step();
      m_members[i].chunk = Chunk(m_members[i], range.depth, fold);
    }
    const auto is_less = [this](const JsonMember& a, const JsonMember& b) {
      m_stop.Step();
      return a.chunk != b.chunk ? a.chunk < b.chunk : a.name < b.name;
    };
    // Often all names are equal.
    if (!std::is_sorted(Iterator(range.first), Iterator(range.last), is_less)) {
      std::sort(Iterator(range.first), Iterator(range.last), is_less);
    }
  }

  std::uint64_t Chunk(const JsonMember& member, std::size_t depth, bool fold) const {
    const std::string_view bytes = m_names.Beginning(member, depth * kChunk, kGoesOn);
    std::uint64_t chunk = 0;
    for (std::size_t i = 0; i < kChunk; ++i) {
      const char byte = i < bytes.size() ? bytes[i] : '\0';
      chunk = chunk << 8 | (fold ? Folded(byte) : static_cast<unsigned char>(byte));
    }
    return chunk << 8 | bytes.size();
  }

  std::size_t EndOfEqualChunks(std::size_t begin, std::size_t last) const {
    std::size_t end = begin + 1;
    while (end < last && m_members[end].chunk == m_members[begin].chunk) {
      ++end;
    }
    return end;
  }

  bool IsSameName(const JsonMember& a, const JsonMember& b) const {
    return a.chunk == b.chunk && m_names.Name(a) == m_names.Name(b);
  }

  const JsonMember& LaterInText(const JsonMember& a, const JsonMember& b) const {
    const bool is_earlier =
        m_names.IsInText(a) == m_names.IsInText(b) ? a.name < b.name : m_names.EndOfName(a) < m_names.EndOfName(b);
    return is_earlier ? b : a;
  }

  std::vector<JsonMember>::iterator Iterator(std::size_t index) const {
    return m_members.begin() + static_cast<std::ptrdiff_t>(index);
  }

  static void Push(std::vector<Range>& ranges, std::size_t first, std::size_t last, std::size_t depth) {
    ranges.push_back(
        {static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(last), static_cast<std::uint32_t>(depth)});
  }

  static constexpr std::size_t kFew = 16;

  const JsonNames& m_names;
  std::vector<JsonMember>& m_members;
  StopCheck& m_stop;
};

void JsonNames::SortAndKeepLast(std::vector<JsonMember>& members, std::size_t first, StopCheck& stop) const {
  if (members.size() - first > 1) {
    Sorter sorter(*this, members, stop);
    sorter.SortByFoldedAndWrittenName(first);
    sorter.KeepLast(first);
  }
}

void JsonNames::SortByFoldedName(std::vector<JsonMember>& members, StopCheck& stop) const {
  for (JsonMember& member : members) {
    member.is_last_of_name = true;
  }
  Sorter(*this, members, stop).SortByFoldedName(0);
}
