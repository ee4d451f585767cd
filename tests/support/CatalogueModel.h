// What a catalogue should do, told in the simplest way: a card that is a map, a catalogue that is a
// vector. Knows nothing of the library.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace CatalogueModel {

struct File {
  std::string name;
  std::uint64_t size = 0;
  std::int64_t time = 0;
  auto operator<=>(File const&) const = default;
};

/// What happens to an attempt to remove a file.
enum class Removal { Succeeds, Fails, Throws };

/// What can be seen of a catalogue and its card.
struct State {
  std::vector<File> catalogue;
  std::vector<std::string> card;
  std::size_t objects = 0;    ///< alive, catalogued or abandoned
  std::uint64_t sleptMs = 0;  ///< since the beginning
  std::string error;          ///< "TEXT in PLACE", or nothing
  bool operator==(State const&) const = default;
};

/// The figures a catalogue is made with.
struct Figures {
  std::int64_t cardBytes = 0;
  std::int64_t reserveBytes = 0;
  std::uint64_t minimumFree = 0;
  float share = 1.0F;
};

class Model {
 public:
  /// A model that takes positions for deletable is wrong; it shows that mistakes are found.
  explicit Model(Figures const& used, bool positionsAreProtected = true)
      : figures(used), protectsPositions(positionsAreProtected) {
    figures.minimumFree += static_cast<std::uint64_t>(
        std::llround(static_cast<float>(figures.reserveBytes) * figures.share));
  }

  // The world around the catalogue.
  void Appear(File const& file) { card[file.name] = file; }
  void Vanish(std::string const& name) { card.erase(name); }
  void Make(std::string const& name, Removal removal) { removals[name] = removal; }
  void Withdraw(bool isOut) { withdrawn = isOut; }
  void Occupy(std::int64_t bytes) { occupied = bytes; }

  // The catalogue's operations. `order` is that of the directory, other entries included.
  bool Load(std::vector<std::string> const& order) {
    error.clear();
    if (withdrawn) return Fail("The disk is not available in Load");
    ClearList();
    total = 0;
    sleptMs += order.size();
    for (auto const& name : order) {
      if (card.contains(name)) Append(card[name]);
    }
    return true;
  }

  bool LoadAndSort(std::vector<std::string> const& order) {
    bool const loaded = Load(order);
    if (loaded) Sort();
    return loaded;
  }

  bool AddFile(std::string const& name) {
    error.clear();
    if (card.contains(name)) {
      Append(card[name]);
      return true;
    }
    ++abandoned;
    return Fail("File not found in AddFile");
  }

  void Sort() {
    std::stable_sort(catalogue.begin(), catalogue.end(),
                     [](File const& a, File const& b) { return a.time < b.time; });
  }

  void ReverseList() { std::reverse(catalogue.begin(), catalogue.end()); }

  void ClearList() {
    abandoned += catalogue.size();
    catalogue.clear();
  }

  // What its owner does to the list itself; the total knows nothing of it.
  void Push(File const& file) { catalogue.push_back(file); }

  bool Erase(std::string const& name) {
    auto const found = Find(name);
    if (found == catalogue.end()) return false;
    catalogue.erase(found);
    return true;
  }

  void OrderByName() {
    std::stable_sort(catalogue.begin(), catalogue.end(),
                     [](File const& a, File const& b) { return a.name > b.name; });
  }

  // What its owner does with an entry. Either makes a missing file; the entry keeps its size.
  std::uint64_t Copy(std::string const& name, std::int64_t now) { return Write(name, 0, now); }

  std::uint64_t Write(std::string const& name, std::uint64_t bytes, std::int64_t now) {
    if (Find(name) == catalogue.end()) return 0;
    File& file = card.try_emplace(name, File{name, 0, now}).first->second;
    file.size += bytes;
    file.time = now;
    return file.size;
  }

  std::uint64_t TotalFilesSize(bool recalculate) {
    if (recalculate || total == 0) {
      total = 0;
      for (auto const& file : catalogue) total += file.size;
    }
    return total;
  }

  unsigned int DeleteOldFiles(std::size_t count) {
    std::size_t const wanted = std::min(count, catalogue.size());
    unsigned int deleted = 0;
    std::vector<File> kept;
    for (auto const& file : catalogue) {
      if (deleted == wanted || IsProtected(file)) {
        kept.push_back(file);
        continue;
      }
      switch (Remove(file.name)) {
        case Removal::Succeeds:
          ++deleted;
          total -= std::min(total, file.size);
          break;
        case Removal::Fails:
          ++abandoned;
          break;
        case Removal::Throws:
          kept.push_back(file);
      }
    }
    catalogue = kept;
    return deleted;
  }

  unsigned int RemoveAllFiles() { return DeleteOldFiles(catalogue.size()); }

  bool RemoveFileByName(std::string const& name) {
    for (std::size_t i = 0; i < catalogue.size(); ++i) {
      if (catalogue[i].name != name) continue;
      Removal const removal = Remove(name);
      if (removal == Removal::Throws) return false;
      if (removal == Removal::Fails) continue;
      total -= std::min(total, catalogue[i].size);
      ++abandoned;
      catalogue.erase(catalogue.begin() + static_cast<std::ptrdiff_t>(i));
      return true;
    }
    return false;
  }

  bool MakeRoom() {
    error.clear();
    for (int fruitless = 0; fruitless < 100;) {
      if (withdrawn) return Fail("Disk not available in MakeRoom");
      if (HasRoom()) return true;
      if (DeleteOldFiles(2) > 0) continue;
      if (++fruitless < 100) sleptMs += 10;
    }
    return Fail("Unable to make room, after 100 retries in MakeRoom");
  }

  State Look() const {
    State state{catalogue, {}, catalogue.size() + abandoned, sleptMs, error};
    for (auto const& [name, file] : card) state.card.push_back(name);
    return state;
  }

  std::size_t Abandoned() const { return abandoned; }

 private:
  bool Fail(std::string const& reason) {
    error = reason;
    return false;
  }

  std::vector<File>::iterator Find(std::string const& name) {
    return std::find_if(catalogue.begin(), catalogue.end(),
                        [&name](File const& file) { return file.name == name; });
  }

  void Append(File const& file) {
    catalogue.push_back(file);
    total += file.size;
  }

  bool IsProtected(File const& file) const {
    return file.name.ends_with(".log") || (protectsPositions && file.name.ends_with(".gps"));
  }

  Removal Remove(std::string const& name) {
    Removal const removal = removals[name];
    if (removal == Removal::Throws) return Removal::Throws;
    if (!card.contains(name)) return Removal::Fails;
    if (removal == Removal::Fails) {
      sleptMs += 150;
      return Removal::Fails;
    }
    card.erase(name);
    return Removal::Succeeds;
  }

  bool HasRoom() const {
    std::int64_t used = occupied;
    for (auto const& [name, file] : card) used += static_cast<std::int64_t>(file.size);
    auto const free = static_cast<float>(std::max<std::int64_t>(figures.cardBytes - used, 0));
    auto const shareBytes = static_cast<float>(figures.cardBytes) * figures.share;
    return free * figures.share > static_cast<float>(figures.minimumFree) &&
           static_cast<float>(total) < shareBytes;
  }

  Figures figures;
  bool protectsPositions;
  std::map<std::string, File> card;
  std::map<std::string, Removal> removals;
  std::vector<File> catalogue;
  std::int64_t occupied = 0;
  bool withdrawn = false;
  std::uint64_t total = 0;
  std::size_t abandoned = 0;
  std::uint64_t sleptMs = 0;
  std::string error;
};

}  // namespace CatalogueModel
