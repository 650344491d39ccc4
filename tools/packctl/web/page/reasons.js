"use strict";

// What the page says of each code of a reason. Who translates the page puts another file in place of this one.
window.reasonSentences = {
  no_space: "The disk is full. Make room, and try again.",
  not_signed: "The package is not signed. Its publisher has to sign it.",
  bad_signature: "The package's signature does not hold. Check the clock; then its publisher has to repair it.",
  keyring_unusable: "The appliance's keyring cannot be used, so no package is accepted.",
  bad_package: "The package is damaged. Its publisher has to publish it again.",
  checksum_mismatch: "The package is not the one that the server announced. Try again.",
  server_unreachable: "The update server cannot be reached. Check the network.",
  server_refused: "The update server refuses the request.",
  bad_reply: "The update server's answer cannot be used.",
  no_pack_offered: "The update server offers no pack for this appliance.",
  download_failed: "The package cannot be downloaded. Try again.",
  not_configured: "The address of the update server, or a fact about the appliance, is not set.",
  requirements_unreadable: "The list of codecs that applications ask for cannot be read.",
  install_failed: "The pack could not be put in place. The old one is back.",
  record_unreadable: "The record of the status is damaged. Run packctl recover.",
  permission_denied: "This takes more rights than the page's server has.",
  not_permitted: "The recorded status does not allow it now.",
  interrupted: "An earlier update was interrupted. Run packctl recover.",
  busy: "Another program is at work. Try again when it has ended.",
  not_confirmed: "An application needs a codec of the pack. Run packctl remove --yes.",
  cancelled: "It was cancelled. Try again.",
};
