// The registry's operations without a bus, on registries of one and of 500 keys at several sizes, and the floor for
// each.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/memory_store.h"
#include "bench/workload.h"
#include "lib/platform/escape.h"
#include "lib/platform/posix_helpers.h"
#include "registry/registry_back_end.h"
#include "registry/registry_format.h"

namespace {

using benchmark::DoNotOptimize;
using workload::Entry;

// What the registry is at least: two ordered maps.
using Table = std::map<std::string, std::map<std::string, std::string>>;

constexpr char kEscapedInValue[] = "%\r\n";

// The arguments of a benchmark: the number of keys, and how full the registry is in percent.
struct Input {
  explicit Input(const benchmark::State& state)
      : keys(static_cast<std::size_t>(state.range(0))),
        size(workload::Share(static_cast<std::size_t>(state.range(1)))) {}

  std::string Text() const { return workload::RegistryText(size, keys); }
  std::string Json() const { return workload::RegistryJson(size, keys); }
  std::vector<Entry> Entries() const { return workload::Entries(size, keys); }

  // An entry in the middle; a name that does not exist if the registry is empty.
  Entry Some() const {
    const std::vector<Entry> entries = Entries();
    return entries.empty() ? Entry{"s000", "k000", "v"} : entries[entries.size() / 2];
  }

  Table AsTable() const {
    Table table;
    for (const Entry& entry : Entries()) {
      table[entry.section][entry.key] = entry.value;
    }
    return table;
  }

  RegistryBackEnd Registry() const { return RegistryBackEnd(std::make_shared<MemoryStore>(Text())); }

  std::size_t keys;
  std::size_t size;
};

// The floor for all that makes the registry's text: plain appends, no escaping.
void Append(benchmark::State& state) {
  const Table table = Input(state).AsTable();
  for (auto _ : state) {
    std::string text;
    for (const auto& [section, keys] : table) {
      text += '[';
      text += section;
      text += "]\n";
      for (const auto& [key, value] : keys) {
        text += key;
        text += '=';
        text += value;
        text += '\n';
      }
    }
    DoNotOptimize(text.data());
  }
}

// The floor for looking something up.
void Find(benchmark::State& state) {
  const Table table = Input(state).AsTable();
  const Entry entry = Input(state).Some();
  for (auto _ : state) {
    std::string value;
    const auto section = table.find(entry.section);
    if (section != table.end()) {
      const auto key = section->second.find(entry.key);
      if (key != section->second.end()) {
        value = key->second;
      }
    }
    DoNotOptimize(value.data());
  }
}

void Copy(benchmark::State& state) {
  const std::string text(Input(state).size, 'v');
  for (auto _ : state) {
    std::string copy = text;
    DoNotOptimize(copy.data());
  }
}

void Serialise(benchmark::State& state) {
  const RegistrySections sections = ParseRegistry(Input(state).Text());
  for (auto _ : state) {
    DoNotOptimize(SerialiseRegistry(sections));
  }
}

void Parse(benchmark::State& state) {
  const std::string text = Input(state).Text();
  for (auto _ : state) {
    DoNotOptimize(ParseRegistry(text));
  }
}

void Write(benchmark::State& state) {
  RegistryBackEnd registry = Input(state).Registry();
  const Entry entry = Input(state).Some();
  const std::string values[] = {std::string(entry.value.size(), 'x'), std::string(entry.value.size(), 'y')};
  std::size_t turn = 0;
  for (auto _ : state) {
    registry.Write(entry.section, entry.key, values[turn ^= 1]);
  }
}

void Read(benchmark::State& state) {
  RegistryBackEnd registry = Input(state).Registry();
  const Entry entry = Input(state).Some();
  for (auto _ : state) {
    DoNotOptimize(registry.Read(entry.section, entry.key));
  }
}

void KeyList(benchmark::State& state) {
  RegistryBackEnd registry = Input(state).Registry();
  const Entry entry = Input(state).Some();
  for (auto _ : state) {
    DoNotOptimize(registry.KeyList(entry.section));
  }
}

void ReadAllJson(benchmark::State& state) {
  RegistryBackEnd registry = Input(state).Registry();
  for (auto _ : state) {
    DoNotOptimize(registry.ReadAllJson());
  }
}

// Merges the whole registry into itself.
void WriteJson(benchmark::State& state) {
  RegistryBackEnd registry = Input(state).Registry();
  const std::string json = Input(state).Json();
  for (auto _ : state) {
    registry.WriteJson(json);
  }
}

void Escape(benchmark::State& state) {
  const std::string value = workload::ValueToEscape(Input(state).size);
  for (auto _ : state) {
    DoNotOptimize(escape::EscapeCopy(value, kEscapedInValue));
  }
}

void Unescape(benchmark::State& state) {
  const std::string escaped = escape::EscapeCopy(workload::ValueToEscape(Input(state).size), kEscapedInValue);
  for (auto _ : state) {
    DoNotOptimize(escape::UnescapeCopy(escaped));
  }
}

class TemporaryFile {
public:
  TemporaryFile() {
    const char* const folder = std::getenv("TMPDIR");
    m_path = std::string(folder != nullptr ? folder : "/tmp") + "/ledgerd-bench-XXXXXX";
    bramble::FileDescriptor(::mkstemp(m_path.data()));
  }
  ~TemporaryFile() { ::unlink(m_path.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const std::string& Path() const { return m_path; }

private:
  std::string m_path;
};

void ReplaceFile(benchmark::State& state) {
  const TemporaryFile file;
  const std::string text(Input(state).size, 't');
  for (auto _ : state) {
    bramble::ReplaceFile(file.Path(), text, 0600);
  }
}

void RegistriesOfAllSizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"keys", "full"})->Args({1, 0})->ArgsProduct({{1, workload::kManyKeys}, {25, 50, 100}});
}

void TextsOfAllSizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"keys", "full"})->ArgsProduct({{1}, {0, 25, 50, 100}});
}

BENCHMARK(Append)->Apply(RegistriesOfAllSizes);
BENCHMARK(Find)->Apply(RegistriesOfAllSizes);
BENCHMARK(Serialise)->Apply(RegistriesOfAllSizes);
BENCHMARK(Parse)->Apply(RegistriesOfAllSizes);
BENCHMARK(Write)->Apply(RegistriesOfAllSizes);
BENCHMARK(Read)->Apply(RegistriesOfAllSizes);
BENCHMARK(KeyList)->Apply(RegistriesOfAllSizes);
BENCHMARK(ReadAllJson)->Apply(RegistriesOfAllSizes);
BENCHMARK(WriteJson)->Apply(RegistriesOfAllSizes);
BENCHMARK(Copy)->Apply(TextsOfAllSizes);
BENCHMARK(Escape)->Apply(TextsOfAllSizes);
BENCHMARK(Unescape)->Apply(TextsOfAllSizes);
BENCHMARK(ReplaceFile)->Apply(TextsOfAllSizes);

}  // namespace

BENCHMARK_MAIN();
