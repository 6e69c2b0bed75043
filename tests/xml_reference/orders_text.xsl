<?xml version="1.0"?>
<!-- One line per order, as text. -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="text"/>
  <xsl:template match="order">order <xsl:value-of select="@id"/>: <xsl:value-of select="count(item)"/> items, <xsl:value-of select="sum(item/@qty)"/> pieces
</xsl:template>
  <xsl:template match="text()"/>
</xsl:stylesheet>
