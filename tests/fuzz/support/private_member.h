// Reaches a private member of the library where a target has to set up what takes a program days:
// the access rules let an explicit instantiation name it.
//
// In the namespace tarn_fuzz:
//   struct Tag { using Type = int Class::*; friend Type member(Tag); };
//   template struct PrivateMember<Tag, &Class::field_>;
//   object.*member(Tag()) = 1;
#ifndef TARN_TESTS_FUZZ_SUPPORT_PRIVATE_MEMBER_H_
#define TARN_TESTS_FUZZ_SUPPORT_PRIVATE_MEMBER_H_

namespace tarn_fuzz {

template <typename Tag, typename Tag::Type kMember>
struct PrivateMember {
  friend typename Tag::Type member(Tag) { return kMember; }
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_PRIVATE_MEMBER_H_
