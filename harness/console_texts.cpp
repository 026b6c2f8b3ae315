#include "harness/console_texts.h"

namespace fixture {

std::string StartText(Medium medium) {
    return std::string("Secondary Bootloader ver 1.9.0 started...\n"
                       "************************************************************\n"
                       "* SVNInfo:                                                 *\n"
                       "*----------------------------------------------------------*\n"
                       "*   Revision:         319                                  *\n"
                       "*   Date:             2013/04/02 15:18:51                  *\n"
                       "*   Build Time:       2013/04/02 15:26:48                  *\n"
                       "*   Revision Range:   319                                  *\n"
                       "*   Mixed Revisions:  no                                   *\n"
                       "*   Modified:         no                                   *\n"
                       "*   URL:              https://code.orvalis.example/fir     *\n"
                       "*                     mware/fixture/secondary-bootload     *\n"
                       "*                     er/trunk/sources-of-the-tree/x/y     *\n"
                       "*                     /z                                   *\n"
                       "*                                                          *\n"
                       "************************************************************\n"
                       "\tInit NandFlash...\n"
                       "Boot pin reports: ") +
           (medium == Medium::nand ? "NAND" : "SD") +
           " boot\n"
           "\tInit LCD...\n"
           "\tInit PJFS...\n"
           "\tInit SDFlash...\n"
           "\tFind valid bank...\n";
}

} // namespace fixture
