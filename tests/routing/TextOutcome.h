// Test helper: what reading a text as a T gives, as one comparable string.
#pragma once

#include <Brio/Exception.h>
#include <Brio/TextForm.h>

#include <string>

// "= <strep>" when the whole text reads as a T, else the exception message.
template <class T>
std::string strepOutcome(std::string const& text) {
  try {
    return "= " + Brio::strep(Brio::strepToValue<T>(Brio::String(text))).str();
  } catch (Brio::RangeException const& e) {
    return e.what();
  }
}
