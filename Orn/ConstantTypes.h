// The types a condition's constant can have: one instantiation of the reactor family for each.
//
// ORN_FOR_EACH_CONSTANT_TYPE(X) expands X(T) once per type. The reactor library instantiates
// every member of the family for exactly these types, and the headers declare those
// instantiations extern, so users link against the library's copies.
//
//   unsigned comparison       bool, unsigned char, unsigned short, unsigned int, unsigned long long
//   signed comparison         char, signed char, short, int, long, long long
//   IEEE comparison           float, double
//   text order and equality   Qel::String (Qel::String8), Qel::Name
//   pointer identity          char*, char const*, Qel::Entity const*
#pragma once

#include "Qel/Core/Types.h"
#include "Qel/Entity/Entity.h"

// clang-format off
#define ORN_FOR_EACH_CONSTANT_TYPE(X) \
  X(bool)                             \
  X(unsigned char)                    \
  X(unsigned short)                   \
  X(unsigned int)                     \
  X(unsigned long long)               \
  X(char)                             \
  X(signed char)                      \
  X(short)                            \
  X(int)                              \
  X(long)                             \
  X(long long)                        \
  X(float)                            \
  X(double)                           \
  X(Qel::String)                      \
  X(Qel::Name)                        \
  X(char*)                            \
  X(char const*)                      \
  X(Qel::Entity const*)
// clang-format on
