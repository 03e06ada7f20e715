#include "oxutils/mutex.h"

namespace oxutils {
namespace {

// Shared by all mutexes and never destroyed: threads may create locks until the process is gone.
struct ErrorCheckingType {
  ErrorCheckingType() {
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  }
  pthread_mutexattr_t attributes;
};

const pthread_mutexattr_t* error_checking() {
  static const ErrorCheckingType type;
  return &type.attributes;
}

}  // namespace

mutex::mutex() { pthread_mutex_init(&handle_, error_checking()); }

mutex::~mutex() { pthread_mutex_destroy(&handle_); }

}  // namespace oxutils
