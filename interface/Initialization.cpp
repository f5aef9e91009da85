#include "interface/Initialization.h"

#include <memory>
#include <string>
#include <utility>

#include "common/model/CoEfficients.h"
#include "common/model/EnergyPerfThreshold.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/DB_Ptr.h"
#include "db/base_class/Transaction.h"
#include "interface/Boundary.h"
#include "interface/LibraryState.h"
#include "interface/Locator.h"
#include "interface/TagStore.h"
#include "interface/interface.h"

namespace eas {
namespace {

void uninitialize() {
    DBLibrary::release();
    set_global_coeffs(nullptr);
    set_global_threshold(nullptr);
}

bool read_model(DBConnection& conn, const char* cluster_name, int default_frequency,
                CoEfficients& coeffs) {
    const Transaction read_only(conn);
    return read_coeffs_from_db(&conn, cluster_name, default_frequency, coeffs) == 0;
}

int keep_thresholds(const char* threshold_file) {
    EnergyPerfThreshold thresholds(global_coeffs, threshold_file);
    if (!thresholds.isValid()) {
        const bool empty = thresholds.isAllCommentOut();
        uninitialize();
        return empty ? EAS_THRESHOLDS_COMMENTED_OUT : EAS_BAD_THRESHOLD_FILE;
    }
    auto kept = std::make_unique<EnergyPerfThreshold>();
    *kept = thresholds;
    set_global_threshold(std::move(kept));
    return EAS_OK;
}

std::string located_dsn() {
    std::string dsn = get_dsn();
    return dsn.empty() ? defdsn : dsn;
}

int load(const char* dsn, const char* cluster_name, int default_frequency,
         const char* threshold_file, int& failure) {
    if (!DBLibrary::init(odbc_lib))
        return EAS_NO_CONNECTION;
    DBConnection::setDBinfo(dsn != nullptr ? dsn : located_dsn().c_str(), nullptr, nullptr,
                            nullptr);
    DB_Ptr conn(create_db_connection());
    if (!conn)
        return EAS_NO_CONNECTION;  // the driver manager stays loaded

    failure = EAS_NO_COEFFICIENTS;
    CoEfficients coeffs;
    const bool read = read_model(*conn, cluster_name, default_frequency, coeffs);
    conn.reset();
    if (!read) {
        DBLibrary::release();
        return EAS_NO_COEFFICIENTS;
    }
    set_global_coeffs(std::make_unique<CoEfficients>(std::move(coeffs)));

    failure = EAS_BAD_THRESHOLD_FILE;
    return keep_thresholds(threshold_file);
}

}  // namespace

int initialize_from(const char* dsn, const char* cluster_name, int default_frequency,
                    const char* threshold_file) {
    const DeferCancellation until_done;
    const CallInProgress call;
    if (!call.admitted())
        return EAS_NO_CONNECTION;  // the driver manager is gone for good
    uninitialize();
    if (cluster_name == nullptr || default_frequency < 1 || threshold_file == nullptr)
        return EAS_BAD_ARGUMENT;
    return without_exceptions(
        EAS_NO_CONNECTION,
        [&](int& failure) {
            return load(dsn, cluster_name, default_frequency, threshold_file, failure);
        },
        uninitialize);
}

}  // namespace eas
