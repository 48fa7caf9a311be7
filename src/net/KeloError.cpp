#include "KeloError.h"

QString describeException(std::exception_ptr error)
{
    try {
        std::rethrow_exception(error);
    } catch (const KeloError &e) {
        return e.description();
    } catch (const std::exception &e) {
        return QString::fromUtf8(e.what());
    } catch (...) {
        return QStringLiteral("eroare necunoscută");
    }
}
