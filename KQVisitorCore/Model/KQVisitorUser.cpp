#include <KQVisitorCore/Model/KQVisitorUser.h>

namespace kq {

#define KQ_USER_PROPERTY(getter, setter, field)                  \
  std::optional<std::string> KQVisitorUser::getter() const {     \
    std::scoped_lock lock(mutex_);                               \
    return (field);                                              \
  }                                                              \
  void KQVisitorUser::setter(std::optional<std::string> value) { \
    std::scoped_lock lock(mutex_);                               \
    (field) = std::move(value);                                  \
  }

KQ_USER_PROPERTY(username, setUsername, username_)
KQ_USER_PROPERTY(name, setName, name_)
KQ_USER_PROPERTY(email, setEmail, email_)
KQ_USER_PROPERTY(phone, setPhone, phone_)
KQ_USER_PROPERTY(userId, setUserId, userId_)

#undef KQ_USER_PROPERTY

}  // namespace kq
