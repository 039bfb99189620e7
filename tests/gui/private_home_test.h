#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QTemporaryDir>

namespace korv::test {

// Windows under test keep their settings file in a private home, removed after each test.
class PrivateHomeTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home_.isValid());
        savedHome_ = qgetenv("HOME");
        qputenv("HOME", home_.path().toLocal8Bit());
    }
    void TearDown() override { qputenv("HOME", savedHome_); }

    QTemporaryDir home_;
    QByteArray savedHome_;
};

}  // namespace korv::test
