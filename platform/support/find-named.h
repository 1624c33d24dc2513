// Looking up by name in small tables.
#ifndef PLATFORM_SUPPORT_FIND_NAMED_H
#define PLATFORM_SUPPORT_FIND_NAMED_H

#include <string_view>

namespace support {

// The first entry of that very name, or null. Entries have a member `name`; the table must outlive the result.
template <typename Table>
constexpr const typename Table::value_type *findNamed(const Table &table, std::string_view name) {
    for (const auto &entry : table) {
        if (entry.name == name)
            return &entry;
    }
    return nullptr;
}

} // namespace support

#endif
