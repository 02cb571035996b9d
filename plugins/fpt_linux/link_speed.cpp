/*
 * ETHTOOL_GLINKSETTINGS and ETHTOOL_SLINKSETTINGS. The kernel says how many words its link mode masks have when it is
 * asked with none; the second call is the real one.
 */
#include "link_speed.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <cerrno>
#include <cstring>
#include <new>

#include "unique_fd.h"

namespace kr_fpt {
namespace {

constexpr size_t mask_words_max = 127; // the field that counts them is a signed byte
constexpr size_t bits_per_word = 32;
constexpr size_t mode_count_max = bits_per_word * mask_words_max;
using mode_set = std::bitset<mode_count_max>;

struct speed_row {
    int32_t port_speed_admin::*flag;
    uint32_t capability;
    uint32_t speed;            // Mb/s
    std::array<int, 23> modes; // ends with -1
};

constexpr speed_row speed_rows[] = {
    {&port_speed_admin::speed_1g,
     PORT_SPEED_CAPABILITY_1G,
     SPEED_1000,
     {ETHTOOL_LINK_MODE_1000baseT_Half_BIT, ETHTOOL_LINK_MODE_1000baseT_Full_BIT, ETHTOOL_LINK_MODE_1000baseKX_Full_BIT,
      ETHTOOL_LINK_MODE_1000baseX_Full_BIT, ETHTOOL_LINK_MODE_1000baseT1_Full_BIT, -1}},
    {&port_speed_admin::speed_10g,
     PORT_SPEED_CAPABILITY_10G,
     SPEED_10000,
     {ETHTOOL_LINK_MODE_10000baseT_Full_BIT, ETHTOOL_LINK_MODE_10000baseKX4_Full_BIT,
      ETHTOOL_LINK_MODE_10000baseKR_Full_BIT, ETHTOOL_LINK_MODE_10000baseR_FEC_BIT,
      ETHTOOL_LINK_MODE_10000baseCR_Full_BIT, ETHTOOL_LINK_MODE_10000baseSR_Full_BIT,
      ETHTOOL_LINK_MODE_10000baseLR_Full_BIT, ETHTOOL_LINK_MODE_10000baseLRM_Full_BIT,
      ETHTOOL_LINK_MODE_10000baseER_Full_BIT, -1}},
    {&port_speed_admin::speed_40g,
     PORT_SPEED_CAPABILITY_40G,
     SPEED_40000,
     {ETHTOOL_LINK_MODE_40000baseKR4_Full_BIT, ETHTOOL_LINK_MODE_40000baseCR4_Full_BIT,
      ETHTOOL_LINK_MODE_40000baseSR4_Full_BIT, ETHTOOL_LINK_MODE_40000baseLR4_Full_BIT, -1}},
    {&port_speed_admin::speed_100g,
     PORT_SPEED_CAPABILITY_100G,
     SPEED_100000,
     {ETHTOOL_LINK_MODE_100000baseKR4_Full_BIT, ETHTOOL_LINK_MODE_100000baseSR4_Full_BIT,
      ETHTOOL_LINK_MODE_100000baseCR4_Full_BIT, ETHTOOL_LINK_MODE_100000baseLR4_ER4_Full_BIT,
      ETHTOOL_LINK_MODE_100000baseKR2_Full_BIT, ETHTOOL_LINK_MODE_100000baseSR2_Full_BIT,
      ETHTOOL_LINK_MODE_100000baseCR2_Full_BIT, ETHTOOL_LINK_MODE_100000baseLR2_ER2_FR2_Full_BIT,
      ETHTOOL_LINK_MODE_100000baseDR2_Full_BIT, ETHTOOL_LINK_MODE_100000baseKR_Full_BIT,
      ETHTOOL_LINK_MODE_100000baseSR_Full_BIT, ETHTOOL_LINK_MODE_100000baseLR_ER_FR_Full_BIT,
      ETHTOOL_LINK_MODE_100000baseCR_Full_BIT, ETHTOOL_LINK_MODE_100000baseDR_Full_BIT, -1}},
};

// Link modes that say something else than a speed.
constexpr int modes_without_speed[] = {
    ETHTOOL_LINK_MODE_Autoneg_BIT,  ETHTOOL_LINK_MODE_TP_BIT,         ETHTOOL_LINK_MODE_AUI_BIT,
    ETHTOOL_LINK_MODE_MII_BIT,      ETHTOOL_LINK_MODE_FIBRE_BIT,      ETHTOOL_LINK_MODE_BNC_BIT,
    ETHTOOL_LINK_MODE_Pause_BIT,    ETHTOOL_LINK_MODE_Asym_Pause_BIT, ETHTOOL_LINK_MODE_Backplane_BIT,
    ETHTOOL_LINK_MODE_FEC_NONE_BIT, ETHTOOL_LINK_MODE_FEC_RS_BIT,     ETHTOOL_LINK_MODE_FEC_BASER_BIT,
    ETHTOOL_LINK_MODE_FEC_LLRS_BIT};

mode_set modes_of(const speed_row &row) {
    mode_set modes;
    for (const int mode : row.modes) {
        if (mode < 0) {
            break;
        }
        modes.set(static_cast<size_t>(mode));
    }
    return modes;
}

// The settings of a link as the kernel exchanges them: the fixed record, then three masks of link modes (supported,
// advertised, of the link partner), each of as many words as the record says.
class link_settings {
  public:
    explicit link_settings(uint32_t command, int8_t mask_words = 0) {
        fixed().cmd = command;
        fixed().link_mode_masks_nwords = mask_words;
    }
    ethtool_link_settings &fixed() {
        return *std::launder(reinterpret_cast<ethtool_link_settings *>(bytes_));
    }
    mode_set supported() {
        return mask(0);
    }
    mode_set advertised() {
        return mask(1);
    }
    void advertise(const mode_set &modes) {
        for (size_t i = 0; i < words(); ++i) {
            uint32_t word = 0;
            for (size_t bit = 0; bit < bits_per_word; ++bit) {
                word |= static_cast<uint32_t>(modes[bits_per_word * i + bit]) << bit;
            }
            std::memcpy(word_at(1, i), &word, sizeof(word));
        }
    }
    bool has_speed() {
        return fixed().speed != 0 && fixed().speed != static_cast<uint32_t>(SPEED_UNKNOWN);
    }

  private:
    size_t words() {
        return static_cast<size_t>(std::max<int>(fixed().link_mode_masks_nwords, 0));
    }
    unsigned char *word_at(size_t which_mask, size_t word) {
        return bytes_ + sizeof(ethtool_link_settings) + sizeof(uint32_t) * (which_mask * words() + word);
    }
    mode_set mask(size_t which) {
        mode_set modes;
        for (size_t i = 0; i < words(); ++i) {
            uint32_t word = 0;
            std::memcpy(&word, word_at(which, i), sizeof(word));
            for (size_t bit = 0; bit < bits_per_word; ++bit) {
                modes[bits_per_word * i + bit] = (word >> bit & 1) != 0;
            }
        }
        return modes;
    }

    alignas(ethtool_link_settings) unsigned char bytes_[sizeof(ethtool_link_settings) +
                                                        3 * mask_words_max * sizeof(uint32_t)] = {};
};

kr_sdn_hal_status status_of_errno() {
    switch (errno) {
    case EOPNOTSUPP:
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    case ENODEV:
        return KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND;
    case EINVAL:
        return KR_SDN_HAL_STATUS_PARAM_EXCEEDS_RANGE;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        return KR_SDN_HAL_STATUS_NO_RESOURCES;
    default:
        return KR_SDN_HAL_STATUS_ERROR;
    }
}

// The ethtool interface goes by name, and a name may change: it is looked up for each call.
kr_sdn_hal_status ethtool(uint32_t ifindex, link_settings *settings) {
    const kr_plugin::unique_fd control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    if (!control) {
        return status_of_errno();
    }
    if (if_indextoname(ifindex, request.ifr_name) == nullptr) {
        return errno == ENXIO ? KR_SDN_HAL_STATUS_ENTRY_NOT_FOUND : status_of_errno();
    }
    request.ifr_data = reinterpret_cast<char *>(settings);
    return ioctl(control.get(), SIOCETHTOOL, &request) == 0 ? KR_SDN_HAL_STATUS_SUCCESS : status_of_errno();
}

// Reads the settings in two calls: the first learns how long the masks are.
kr_sdn_hal_status settings_read(uint32_t ifindex, link_settings *settings) {
    *settings = link_settings(ETHTOOL_GLINKSETTINGS);
    const kr_sdn_hal_status status = ethtool(ifindex, settings);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    const int words = -settings->fixed().link_mode_masks_nwords;
    if (words <= 0 || words > static_cast<int>(mask_words_max)) {
        return KR_SDN_HAL_STATUS_ERROR; // not how the kernel answers
    }
    *settings = link_settings(ETHTOOL_GLINKSETTINGS, static_cast<int8_t>(words));
    return ethtool(ifindex, settings);
}

} // namespace

kr_sdn_hal_status speed_oper_get(uint32_t ifindex, uint32_t *speed) {
    link_settings settings(ETHTOOL_GLINKSETTINGS);
    const kr_sdn_hal_status status = settings_read(ifindex, &settings);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    if (!settings.has_speed()) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    *speed = settings.fixed().speed;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status speed_admin_get(uint32_t ifindex, port_speed_admin *speeds) {
    link_settings settings(ETHTOOL_GLINKSETTINGS);
    const kr_sdn_hal_status status = settings_read(ifindex, &settings);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    const bool is_negotiated = settings.fixed().autoneg == AUTONEG_ENABLE;
    if (!is_negotiated &&
        (settings.fixed().speed == 0 || settings.fixed().speed == static_cast<uint32_t>(SPEED_UNKNOWN))) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    *speeds = {}; // stays so for a speed that has no flag
    for (const speed_row &row : speed_rows) {
        const bool is_on =
            is_negotiated ? (settings.advertised() & modes_of(row)).any() : settings.fixed().speed == row.speed;
        speeds->*row.flag = is_on ? 1 : 0;
    }
    return KR_SDN_HAL_STATUS_SUCCESS;
}

kr_sdn_hal_status speed_admin_set(uint32_t ifindex, const port_speed_admin &speeds) {
    const auto wanted_count = std::count_if(std::begin(speed_rows), std::end(speed_rows),
                                            [&](const speed_row &row) { return speeds.*row.flag != 0; });
    if (wanted_count == 0) {
        return KR_SDN_HAL_STATUS_PARAM_ERROR;
    }
    link_settings settings(ETHTOOL_GLINKSETTINGS);
    const kr_sdn_hal_status status = settings_read(ifindex, &settings);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    const mode_set supported = settings.supported();
    const bool can_negotiate = supported[ETHTOOL_LINK_MODE_Autoneg_BIT];
    if (!can_negotiate && wanted_count > 1) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    mode_set advertised = settings.advertised();
    for (size_t mode = 0; mode < advertised.size(); ++mode) {
        if (std::find(std::begin(modes_without_speed), std::end(modes_without_speed), static_cast<int>(mode)) ==
            std::end(modes_without_speed)) {
            advertised.reset(mode);
        }
    }
    for (const speed_row &row : speed_rows) {
        if (speeds.*row.flag == 0) {
            continue;
        }
        if (can_negotiate && (supported & modes_of(row)).none()) {
            return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
        }
        advertised |= supported & modes_of(row);
        settings.fixed().speed = row.speed;
    }
    settings.fixed().cmd = ETHTOOL_SLINKSETTINGS;
    settings.fixed().autoneg = can_negotiate ? AUTONEG_ENABLE : AUTONEG_DISABLE;
    if (can_negotiate) {
        advertised.set(ETHTOOL_LINK_MODE_Autoneg_BIT);
        settings.advertise(advertised);
    } else {
        settings.fixed().duplex = DUPLEX_FULL;
    }
    return ethtool(ifindex, &settings);
}

kr_sdn_hal_status speed_capability_get(uint32_t ifindex, uint32_t *capability) {
    link_settings settings(ETHTOOL_GLINKSETTINGS);
    const kr_sdn_hal_status status = settings_read(ifindex, &settings);
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        return status;
    }
    mode_set others = settings.supported();
    for (const int mode : modes_without_speed) {
        others.reset(static_cast<size_t>(mode));
    }
    uint32_t found = 0;
    for (const speed_row &row : speed_rows) {
        if ((others & modes_of(row)).any()) {
            found |= row.capability;
            others &= ~modes_of(row);
        }
    }
    if (others.any()) {
        found |= PORT_SPEED_CAPABILITY_OTHER;
    }
    if (found == 0) {
        return KR_SDN_HAL_STATUS_CMD_UNSUPPORTED;
    }
    *capability = found;
    return KR_SDN_HAL_STATUS_SUCCESS;
}

} // namespace kr_fpt
