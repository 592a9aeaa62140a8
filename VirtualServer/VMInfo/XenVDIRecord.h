#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>

// A virtual disk image as a Xen host describes it.
struct xen_vdi_record {
    std::string uuid;
    std::string name_label;
    std::string name_description;
    std::string sr_guid;  // of the storage repository
    std::list<std::string> vbd_guids;
    int64_t virtual_size = 0;          // bytes
    int64_t physical_utilisation = 0;  // bytes
    int type = 0;
    bool sharable = false;
    bool read_only = false;
    std::map<std::string, std::string> other_config;
    bool storage_lock = false;
    std::string location;
    bool managed = false;
    bool missing = false;
    std::string parent_vdi_guid;
    std::map<std::string, std::string> xenstore_data;
    std::map<std::string, std::string> sm_config;
    bool is_a_snapshot = false;
    std::string snapshot_of_guid;
    std::list<std::string> snapshot_guids;
    std::string snapshot_time;
    std::list<std::string> tags;
};
