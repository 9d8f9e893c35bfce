// Header blocks and records in, members out.
//
// There are two of them, chosen once a run: the lenient one merges pax and long-name records the component's
// own way (tar/format/PaxRecords.h), the full one as POSIX pax and the other tars mean them
// (tar/format/FullExtensions.h; the word FullRead). An engine brings the bytes, in its own order and with its
// own messages, and never asks which.
#pragma once

#include <memory>
#include <string_view>

#include "tar/format/Member.h"
#include "tar/format/TarNumber.h"

namespace morvane {

class LogBase;

// It is fed in the order of the archive: takeBlock with each header block, and behind a Record takeRecord
// with its data. It keeps no pointer to what it is given. One thread.
class MemberReader {
 public:
  // What a header block begins.
  enum class Found {
    Member,
    Record,      // its data say something of the member that follows: they are to be given to takeRecord
    PassedOver,  // neither: it and its data are to be passed over
    End,         // nothing: the archive ends here
  };

  // What a reader has to look for. `spreads`: maps of sparse members are read (only where full), so that
  // their bytes can be put where they belong.
  struct Demand {
    bool full = false;
    bool spreads = false;
    bool operator==(const Demand& other) const { return full == other.full && spreads == other.spreads; }
  };

  static std::unique_ptr<MemberReader> make(Demand demand);
  explicit MemberReader(Demand demand) : m_demand(demand) {}
  virtual ~MemberReader();

  bool isFull() const { return m_demand.full; }
  const Demand& demand() const { return m_demand; }

  // Takes the next header block. False, with the reason in the log, if it is no valid one. A member has what
  // the records before said of it. `block` has 512 bytes.
  [[nodiscard]] virtual bool takeBlock(const unsigned char* block, Found& found, LogBase& log) = 0;
  // Whether the block that comes next is merged with a record. Its texts are then the record's and not the
  // block's.
  virtual bool followsRecord() const = 0;
  // The data of the record that was found last. A NUL must follow the last byte. False, with the reason in
  // the log, if they make no sense.
  [[nodiscard]] virtual bool takeRecord(std::string_view data, LogBase& log) = 0;

  // What a record is called in messages, and whether its data are of a size that is read: at most `most`
  // bytes. What is refused is said in the log.
  virtual const char* recordName() const = 0;
  // The pull engine asks, before it takes memory for them; the push engine has limits of its own.
  [[nodiscard]] virtual bool acceptsRecordSize(long long size, long long most, LogBase& log) const = 0;

  // A further block of the map of a sparse member of GNU's form, which stands between header and data and is
  // counted in no size. True when yet another one comes.
  bool takeSparseBlock(const unsigned char* block);

  // Whether the block behind the header of this member is to be shown first (takeBlockBehind), where it can
  // be. Links and special files have no data, and some writers state the size of what a link leads to; but
  // POSIX allows a hard link to have the data as well.
  bool wantsBlockBehind() const {
    return isFull() && m_found.size > 0 &&
           (m_found.isHardLink() || m_found.isSymbolicLink() || m_found.isSpecial());
  }
  // Where another member begins at once there are no data. Zeros decide nothing: data may begin with them,
  // and to take those for the archive's end would lose the rest of it.
  void takeBlockBehind(const unsigned char* block) {
    if (looksLikeHeader(block)) m_found.size = 0;
  }

  // What was found last, records included. It may be changed, and its texts moved away, until the next block.
  Member& found() { return m_found; }
  // The texts of the last block as the log shows them; empty for a block that was merged. What a reader has
  // moved out of it is gone.
  virtual const TarHeader& header() const = 0;

 protected:
  Member m_found;

 private:
  const Demand m_demand;
};

}  // namespace morvane
