// The database conversations of the scheduler functions: one short-lived connection per call,
// coefficients in, tags in, out and away.
//
// Every function belongs to the thread that holds the connection.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class CoEfficients;
class DBConnection;
class EnergyTag;

/// A connection by the process's database settings, the caller's to close, or null.
DBConnection* create_db_connection();
/// Disconnects and destroys `conn`; does nothing for null.
void close_db_connection(DBConnection* conn);

/// Reads the coefficients of a cluster in ascending frequency order into `coeffs_ref`.
/// Returns 0, or 1 after any failure or without any row; rows read before a failure stay.
int read_coeffs_from_db(DBConnection* conn, const std::string& cluster_name, int def_freq,
                        CoEfficients& coeffs_ref);

/// Appends the matching tags, with their rows in the order of the database; an empty user or tag
/// name matches all. Rows that bear other names, which a database that compares without case
/// delivers, are passed over. Returns the number of tags in `etags`, or -1 with `etags` empty. The
/// transaction stays open.
int read_tags_from_db(DBConnection* conn, const std::string& cluster_name, int deffreq,
                      const std::string& user, const std::string& tag,
                      std::vector<EnergyTag>& etags);

/// Stores every row of a tag in one transaction. Returns 0, or -1 with nothing stored.
int load_etag_into_db(DBConnection* conn, const EnergyTag& etag);

/// Removes the matching tags in one transaction and lists them: `user_list` and `tagname_list` get
/// one heap string per tag, in lists of malloc(3), all the caller's; null when there is no tag.
/// Returns the number of tags removed, or -1 with nothing removed and both lists null: also where
/// rows that bear other names would go with them.
int remove_tags_from_db(DBConnection* conn, const std::string& cluster_name, int default_frequency,
                        const std::string& user_name, const std::string& tag_name,
                        char**& user_list, char**& tagname_list);

namespace eas {

/// Copies `text`, cut to `size` - 1 bytes, as a formatted print without arguments would: "%%" gives
/// "%". There is nothing for another conversion to print, so it keeps its characters.
void copy_as_format(char* field, std::size_t size, std::string_view text);

template <std::size_t N>
void copy_as_format(char (&field)[N], std::string_view text) {
    copy_as_format(field, N, text);
}

}  // namespace eas
