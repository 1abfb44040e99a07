#ifndef TARVO_DRIVER_WALKER_H
#define TARVO_DRIVER_WALKER_H

#include <pugixml.hpp>

// Fills every "ar:Token"/"token" element with the current token and every "ar:Sign"/"sign"
// element with the current sign. Names match exactly: prefix as text, case-sensitive.
class walker : public pugi::xml_tree_walker {
public:
    ~walker() override = default;
    bool for_each(pugi::xml_node& node) override;
};

#endif
