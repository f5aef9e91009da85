#include "interface/TagRecord.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "common/model/EnergyTag.h"
#include "interface/LibraryState.h"

namespace {

template <typename T>
T* allocate(const std::vector<T>& values) {
    return static_cast<T*>(std::malloc(values.size() * sizeof(T)));
}

template <typename T>
void copy_into(const std::vector<T>& values, T* block) {
    std::copy(values.begin(), values.end(), block);
}

}  // namespace

int fill_tag_struct(const EnergyTag& etag, energyPolicyTag* tag) {
    if (tag == nullptr || etag.available() == 0) {
        eas::debug_log("NULL tag structure pointer or unavailable tag object.\n");
        return -1;
    }
    tag->energy_tag_name = ::strdup(etag.energy_tag_name().c_str());
    tag->job_id = ::strdup(etag.job_step_id().c_str());
    tag->user_name = ::strdup(etag.user_name().c_str());
    tag->cluster_name = ::strdup(etag.cluster_name().c_str());
    tag->default_frequency = etag.default_frequency();
    tag->num_freq = static_cast<int32_t>(etag.frequency_array().size());

    tag->frequencies = allocate(etag.frequency_array());
    tag->predict_power = allocate(etag.predict_power_array());
    tag->energy_saving_pct = allocate(etag.energy_saving_pct_array());
    tag->perf_degrad_pct = allocate(etag.perf_degrad_pct_array());
    tag->predict_elapse_time = allocate(etag.predict_elapse_time_array());
    if (tag->frequencies == nullptr || tag->predict_power == nullptr ||
        tag->energy_saving_pct == nullptr || tag->perf_degrad_pct == nullptr ||
        tag->predict_elapse_time == nullptr) {
        eas::debug_log("fill_tag_struct: Space allocation failed.\n");
        return -1;
    }

    copy_into(etag.frequency_array(), tag->frequencies);
    copy_into(etag.predict_power_array(), tag->predict_power);
    copy_into(etag.energy_saving_pct_array(), tag->energy_saving_pct);
    copy_into(etag.perf_degrad_pct_array(), tag->perf_degrad_pct);
    copy_into(etag.predict_elapse_time_array(), tag->predict_elapse_time);
    return 0;
}

void free_tag_struct(energyPolicyTag* tags, int count) {
    for (int i = 0; i < count; ++i) {
        const energyPolicyTag& tag = tags[i];
        std::free(tag.energy_tag_name);
        std::free(tag.job_id);
        std::free(tag.user_name);
        std::free(tag.cluster_name);
        std::free(tag.frequencies);
        std::free(tag.predict_power);
        std::free(tag.energy_saving_pct);
        std::free(tag.perf_degrad_pct);
        std::free(tag.predict_elapse_time);
    }
}

namespace eas {

TagRecords::~TagRecords() {
    free_tag_struct(records_, count_);
    std::free(records_);
}

bool TagRecords::fill(std::vector<EnergyTag>& tags) {
    // Zeroed, so that it can be freed at any time.
    records_ = static_cast<energyPolicyTag_t*>(std::calloc(tags.size(), sizeof(energyPolicyTag_t)));
    if (records_ == nullptr) {
        debug_log("eas_query_tag: Space allocation failed.\n");
        return false;
    }
    count_ = static_cast<int>(tags.size());
    for (std::size_t i = 0; i < tags.size(); ++i) {
        const EnergyTag tag = std::move(tags[i]);
        if (fill_tag_struct(tag, records_ + i) != 0)
            return false;
    }
    return true;
}

void TagRecords::hand_out(int& count, energyPolicyTag_t*& records) noexcept {
    count = std::exchange(count_, 0);
    records = std::exchange(records_, nullptr);
}

}  // namespace eas
