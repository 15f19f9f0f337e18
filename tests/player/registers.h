// Register accesses as sessions show them: all of one cycle on one line.
#pragma once

#include "hardware/machine.h"

#include <string>
#include <vector>

namespace session {

/// Listens to a machine's register accesses for as long as it lives. A write that follows a read
/// starts a new line. "A8:06000004<00012000" is a write through an index register and its data
/// register.
class RegisterLines {
  public:
    explicit RegisterLines(emulator::Machine& machine);
    RegisterLines(const RegisterLines&) = delete;
    RegisterLines& operator=(const RegisterLines&) = delete;
    ~RegisterLines();

    std::vector<std::string> take();

  private:
    void note(const std::string& line);
    void add(const std::string& access);

    emulator::Machine* machine_;
    std::vector<std::string> lines_;
    std::string index_; ///< a write to an index register whose data register is next
    bool last_was_read_ = false;
};

} // namespace session
