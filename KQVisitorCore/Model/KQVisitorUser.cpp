#include <KQVisitorCore/Model/KQVisitorUser.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

namespace kq {

struct KQVisitorUser::State {
  std::optional<std::string> username;
  std::optional<std::string> name;
  std::optional<std::string> email;
  std::optional<std::string> phone;
  std::optional<std::string> userId;
};

KQVisitorUser::KQVisitorUser() : state_(std::make_unique<Guarded<State>>()) {}

KQVisitorUser::~KQVisitorUser() = default;

#define KQ_USER_PROPERTY(getter, setter)                         \
  std::optional<std::string> KQVisitorUser::getter() const {     \
    return state_->get(&State::getter);                          \
  }                                                              \
  void KQVisitorUser::setter(std::optional<std::string> value) { \
    state_->set(&State::getter, std::move(value));               \
  }

KQ_USER_PROPERTY(username, setUsername)
KQ_USER_PROPERTY(name, setName)
KQ_USER_PROPERTY(email, setEmail)
KQ_USER_PROPERTY(phone, setPhone)
KQ_USER_PROPERTY(userId, setUserId)

#undef KQ_USER_PROPERTY

}  // namespace kq
