#include "base/thread_name.h"

#include <pthread.h>

namespace lumora {

void nameThread(const std::string& name) {
#ifdef __APPLE__
  pthread_setname_np(name.c_str());
#else
  constexpr std::size_t shown = 15;  // Linux refuses longer names
  pthread_setname_np(pthread_self(), name.substr(0, shown).c_str());
#endif
}

}  // namespace lumora
