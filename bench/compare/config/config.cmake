# Two of the peers have libraries that no other question needs.
vornfc_peer(inireader INIReader)
vornfc_peer_by_hand(pocoutil Poco/Util/IniFileConfiguration.h PocoUtil)
if(TARGET pocoutil_peer)
  target_link_libraries(pocoutil_peer INTERFACE ${poco_library})
endif()
vornfc_compare(config vornfc PEERS glib inireader pocoutil)
