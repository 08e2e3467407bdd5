// What kind of method an entry is.
#pragma once

namespace tova::factory {

struct MethodAttributes {
  static constexpr unsigned kStatic = 0x8;
  // The function takes the object as its first argument. Said of plain functions only; member functions need no word.
  static constexpr unsigned kInstance = 0x1000;

  unsigned flags = 0;
};

}  // namespace tova::factory
