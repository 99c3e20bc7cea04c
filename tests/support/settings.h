// ScopedSettings: every setting (cfg_*) saved when it is made and put back
// when it goes, so a test can change any of them without leaking the change
// into the next test of the same binary.
#pragma once

#include <string>
#include <vector>

#include "base/config_internal.h"

namespace corvald::test {

class ScopedSettings {
public:
    ScopedSettings() {
        for (const ConfigKey& k : config_keys())
            saved_.push_back({k.str ? *k.str : std::string(), k.num ? *k.num : 0});
    }
    ~ScopedSettings() {
        size_t i = 0;
        for (const ConfigKey& k : config_keys()) {
            if (k.str) *k.str = saved_[i].text;
            if (k.num) *k.num = saved_[i].number;
            ++i;
        }
    }
    ScopedSettings(const ScopedSettings&) = delete;
    ScopedSettings& operator=(const ScopedSettings&) = delete;

private:
    struct Value {
        std::string text;
        int number;
    };
    std::vector<Value> saved_;
};

}  // namespace corvald::test
