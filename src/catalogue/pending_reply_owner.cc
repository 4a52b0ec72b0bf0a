#include "vorlund/catalogue/pending_reply_owner.h"

#include "vorlund/foundation/format.h"

std::string VLPendingReplyOwner::description() const {
  return vl::format("<VLPendingReplyOwner: %p>", static_cast<const void*>(this));
}
