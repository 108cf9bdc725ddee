// The one call of a message record that needs the web service: whether the visitor wrote it.
// It lives here, beside the service that holds the current user, so that the records' folder
// includes nothing above it.

#include <KQVisitorCore/Model/KQVisitorMessage.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>

namespace kq {

bool KQVisitorMessage::isMessageByCurrentUser() const {
  const auto writer = sender();
  return writer != nullptr && writer == KQVisitorWebService::sharedInstance().currentUser();
}

}  // namespace kq
