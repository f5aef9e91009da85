// A properties file: lines of key=value, read into an ordered map.
#pragma once

#include <cstdio>
#include <map>
#include <string>

class Properties {
  public:
    Properties() = default;
    /// Reads `file`. The map stays empty if it cannot be opened or its first line holds no "=".
    explicit Properties(const char* file);

    /// Adds the lines of `file`; false, with nothing added, if the first line holds no "=". A last
    /// line without a newline is not read. Lines longer than 255 characters count as several.
    bool parse(std::FILE* file);

    /// The value; a missing key is inserted with an empty one.
    std::string& operator[](const std::string& key) { return _propertiesMap[key]; }
    [[nodiscard]] std::map<std::string, std::string> getPropertiesMap() const {
        return _propertiesMap;
    }
    void setProperties(const std::string& key, const std::string& value) {
        _propertiesMap[key] = value;
    }

  private:
    std::map<std::string, std::string> _propertiesMap;
};
