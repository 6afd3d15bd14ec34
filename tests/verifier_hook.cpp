// verifier_hook.cpp - every verifier violation fails the test that caused it,
// with the report, whatever the test then does with the exception that stops
// its work: the failure is recorded before the exception is thrown.
#include "bench/verifier.h"

#include <gtest/gtest.h>

namespace {

const bool installed = [] {
    korvanel::bench::verifier::set_hook([](const korvanel::bench::Violation& v) { ADD_FAILURE() << v.text(); });
    return true;
}();

}  // namespace
