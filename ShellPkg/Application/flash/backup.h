// Saved ranges: a file with the bytes, and a text file that says where they came from.
#pragma once

#include "adapters.h"
#include "image.h"
#include "record.h"

#include <cstdint>
#include <span>

namespace flash {

/// Memory for pieces.
struct Pieces {
    std::array<std::uint8_t, PIECE> wanted;
    std::array<std::uint8_t, PIECE> old;
    std::array<std::uint8_t, PIECE> flash;
    std::array<std::uint8_t, PIECE> again;
};

/// A new file that receives a range of the flash.
class Backup {
  public:
    /// @param name      of the file, or what its name begins with
    /// @param numbered  NAME.old000 or the next number that is free
    /// @param in_job    the same as `numbered` when the file exists: a job can be repeated
    /// @param hint      added to the reason when the file cannot be written
    Backup(const platform::FileName& name, bool numbered, bool in_job, std::string_view hint)
        : name_(name), numbered_(numbered), in_job_(in_job), hint_(hint) {}

    /// Finds a name. The file and its text file, NAME.txt, must both be free.
    Outcome take_name();

    /// Reads the range until two readings agree, saves it and reads the file back, then writes the
    /// text file and reads that back. A file that is not complete is removed.
    /// @param tolerated  bytes in these addresses may read differently; they are counted
    Outcome save(const Chip& chip, const Adapters& adapters, const Choice& choice, Addresses range,
                 Addresses tolerated, Pieces& pieces);

    const platform::FileName& name() const { return name_; }

    /// The saved bytes from the flash's `address` on. @returns false when they cannot be read
    bool read(std::uint32_t address, std::span<std::uint8_t> out) const {
        return saved_.read(address - first_, out);
    }

    /// What was saved.
    const QFU_SHA256::Sum& sum() const { return saved_.sum(); }

  private:
    Outcome save_bytes(const Chip& chip, Addresses tolerated, Pieces& pieces);
    Outcome save_text(const Adapters& adapters, const Choice& choice);
    Outcome not_written(const platform::FileName& name) const;
    Outcome give_up(Outcome outcome);

    platform::FileName name_;
    platform::FileName text_name_{};
    bool numbered_;
    bool in_job_;
    std::string_view hint_;
    Image saved_;
    std::uint32_t first_ = 0;
    std::uint64_t size_ = 0;
    std::uint32_t unstable_ = 0;
};

} // namespace flash
